#pragma once

#include <boost/function.hpp>
#include <list>

using DaemonHandlers = std::list<boost::function<void()>>;

/// Handlers that run, in order, in the parent and in the child when a caller detaches
/// this process as a daemon. This program registers a child handler and never
/// detaches; a program that embeds it may.
DaemonHandlers& parentDaemonHandlers();
DaemonHandlers& childDaemonHandlers();
