#pragma once

#include "commons/exceptions.h"

/// An error in the command line or a settings file, which the usage text helps to correct.
DECLARE_ERROR_TAG(MigrateBadSettings, "%1%");
/// The migration cannot begin or go on; the text says why.
DECLARE_ERROR_TAG(MigrateImpossible, "%1%");
/// Another run uses the same session.
DECLARE_ERROR_TAG(MigrateSessionBusy, "%1%");
