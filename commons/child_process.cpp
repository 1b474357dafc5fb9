#include "commons/child_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>

Pipe makePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

bool setNonBlocking(const UniqueFd& fd) {
  const int flags = fcntl(fd.get(), F_GETFL);
  return flags >= 0 && fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) == 0;
}

std::vector<char*> pointersTo(const ArgList& args) {
  std::vector<char*> pointers;
  for (const std::string& argument : args) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

void closeDescriptorsFrom(int first) {
  if (close_range(static_cast<unsigned>(first), ~0U, 0) == 0) return;
  // The kernel, or a filter of system calls, does not support close_range.
  for (int fd = first; fd < getdtablesize(); ++fd) close(fd);
}
