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

/// True when small content files should be fetched in batches. Only speed depends on it, so a value
/// that cannot be understood counts as "no", and is reported to the system log.
bool areBatchesWanted();

/// True when the caller asks for the listed sizes in the migration status. Other callers get the
/// document without them.
bool areListedSizesWanted();

/// The rules of the host's configuration for the keys of source hosts. Fails closed: throws
/// SshHostKeyRejected for a setting that cannot be met or read.
HostKeyRules configuredHostKeyRules(const std::string& host);

/// The key that the run logs in by. Throws SshIdentityRejected for a setting that cannot be met: a
/// run that should use a key does not go on without it.
LoginIdentity identityOf(const config& config);

/// The jump host for the source host, if one is requested. Throws ConnectionFault when the request
/// is malformed.
std::optional<JumpHost> jumpHostOf(const config& config);
