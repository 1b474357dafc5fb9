#pragma once

#include <optional>
#include <string>

#include "commons/exceptions.h"
#include "commons/jump_host.h"
#include "sondrel/options.h"
#include "transport/ssh-transfer.h"

/// What this host's configuration and the caller's environment say about a run.

DECLARE_ERROR_TAG(ContentVerifyUnknown, "Cannot tell whether content must be verified: %1%");

/// True when the environment variable, by which a caller asks for something, says "yes".
bool isAskedFor(const char* variable);

/// True when content files must be compared with the list as they arrive. It costs
/// processor time, and a list with wrong sums then fails; so it is off unless it is set. Fails
/// closed: throws ContentVerifyUnknown when an operator's setting cannot be understood.
bool isVerificationConfigured();

/// True when small content files must travel together. Only speed depends on it: what cannot be
/// understood, which the system log names, is a no.
bool areBatchesWanted();

/// True when the caller wants to read in the migration status how far the transfer is by what
/// is listed. Other callers know the document without that.
bool areListedSizesWanted();

/// What the host's configuration demands of the keys of source hosts. Fails closed: throws
/// SshHostKeyRejected for a setting that cannot be met or read.
HostKeyRules configuredHostKeyRules(const std::string& host);

/// The key of the run. Throws SshIdentityRejected for a setting that cannot be met: a run that
/// was to use a key does not go on without it.
LoginIdentity identityOf(const config& config);

/// The host that the way to the source host leads through, if one is asked for. Throws
/// ConnectionFault when what was asked for is none.
std::optional<JumpHost> jumpHostOf(const config& config);
