#pragma once

#include <boost/filesystem/path.hpp>
#include <boost/function.hpp>

/// Called with each local path and the remote path that matches it. Its result
/// says whether to walk into a directory.
using DirVisitor = boost::function<bool(const boost::filesystem::path& local,
                                        const boost::filesystem::path& remote)>;

/// Walks a local tree. The visitor gets the starting node first, then its entries in the order of
/// the directory listing. Symbolic links are followed, except one that leads back to a directory
/// above it: that one is not visited, and the log says so. A dangling link is visited as a file.
/// Throws boost::filesystem::filesystem_error, and boost::bad_function_call for an empty visitor.
void recursive_dir_walk_sync(const boost::filesystem::path& localDir,
                             const boost::filesystem::path& remoteDir, const DirVisitor& visitor);

/// The same with "." as the remote side.
void recursive_dir_walk(const boost::filesystem::path& localDir, const DirVisitor& visitor);
