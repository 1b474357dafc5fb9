#pragma once

#include <sys/types.h>

#include <string>

/// The user id of `account`; 0, with a line in the system log, when there is no
/// such account.
uid_t get_user_id(const std::string& account);

/// Which id of an account `korvo_ugid` is to return.
enum UgidSelector { UGID_USER = 0, UGID_GROUP = 1 };

/// The user id or the primary group id of `account`; 0, with a line in the system
/// log, when there is no such account.
unsigned int korvo_ugid(const std::string& account, UgidSelector selector);

/// The name of the group with this number; "no name" when there is no such group.
std::string getGroupName(gid_t group);
