#pragma once

#include "commons/exceptions.h"

/// What is wrong with the command line or a settings file; the usage text helps.
DECLARE_ERROR_TAG(MigrateBadSettings, "%1%");
/// Why nothing could be begun or gone on with.
DECLARE_ERROR_TAG(MigrateImpossible, "%1%");
/// Another run is at work on the same session.
DECLARE_ERROR_TAG(MigrateSessionBusy, "%1%");
