/* Preloaded into the tool: makes one system call fail, as if the system itself had failed.
 *
 * FAIL_KIND    write close fsync rename mkstemp chown mkdir statfs recv send setfl; or
 *              close_range, whose calls all fail; or full: the disk is full, for each file whose
 *              path begins with FAIL_PATH, after FAIL_NTH bytes have been written
 * FAIL_NTH     which of these calls fails, counted from 1; with 0 none fails, and all are reported
 * FAIL_STAYS   set: later calls fail, too, as with a full disk; a connection is closed
 * FAIL_REPORT  file that gets a line for each failed call: its kind and its object
 *
 * Calls that the C library makes itself cannot be replaced. Of these only its buffered files
 * matter here, in which documents are saved: files that are opened for writing use the functions
 * below to write and close. Out of reach are the console, the system log, the files of accounts
 * and names that the C library reads, and closing files that were opened for reading.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

static const char* failing_kind = "";
static const char* failing_path = "";
static char report[4096];
static long nth, count;
static int stays;
static pid_t tool;

/* Only calls of the tool itself fail, not those of programs that it starts. */
__attribute__((constructor)) static void begin(void) {
  const char* kind = getenv("FAIL_KIND");
  if (!kind) return;
  failing_kind = strdup(kind);
  nth = atol(getenv("FAIL_NTH"));
  if (getenv("FAIL_PATH")) failing_path = strdup(getenv("FAIL_PATH"));
  stays = getenv("FAIL_STAYS") != NULL;
  strncpy(report, getenv("FAIL_REPORT"), sizeof report - 1);
  tool = getpid();
  unsetenv("LD_PRELOAD");
  unsetenv("FAIL_KIND");
}

static int is_kind(const char* kind) { return strcmp(kind, failing_kind) == 0 && getpid() == tool; }

static void tell(const char* what) {
  char line[8192];
  const int size = snprintf(line, sizeof line, "%s %s\n", failing_kind, what);
  const int fd = syscall(SYS_openat, AT_FDCWD, report, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd < 0 || syscall(SYS_write, fd, line, size) != size) abort();
  syscall(SYS_close, fd);
}

static int fails(const char* kind, int error, const char* what) {
  if (!is_kind(kind)) return 0;
  ++count;
  if (nth == 0) {
    tell(what);
    return 0;
  }
  if (count != nth && !(stays && count > nth)) return 0;
  tell(what);
  errno = error;
  return 1;
}

typedef char Path[4096];

/* False when the descriptor is not open. */
static int find_path(int fd, Path path) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const int kept = errno;
  const ssize_t size = readlink(link, path, sizeof(Path) - 1);
  errno = kept;
  if (size >= 0) path[size] = '\0';
  return size >= 0;
}

static int fails_on_descriptor(const char* kind, int error, int fd) {
  Path path;
  return find_path(fd, path) && fails(kind, error, path);
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

/* How many of `size` bytes the disk has room for. */
static size_t room(int fd, size_t size) {
  Path path;
  if (!is_kind("full") || !find_path(fd, path)) return size;
  if (strncmp(path, failing_path, strlen(failing_path)) != 0) return size;
  const off_t at = lseek(fd, 0, SEEK_CUR);
  if (at + (off_t)size <= nth) return size;
  if (at < nth) return nth - at;
  tell(path);
  return 0;
}

/* Imitates a full disk. */
ssize_t write(int fd, const void* bytes, size_t size) {
  const size_t fitting = room(fd, size);
  if (size > 0 && fitting == 0) {
    errno = ENOSPC;
    return -1;
  }
  return fails_on_descriptor("write", ENOSPC, fd) ? -1 : REAL(write)(fd, bytes, fitting);
}
ssize_t writev(int fd, const struct iovec* parts, int number) {
  return fails_on_descriptor("write", ENOSPC, fd) ? -1 : REAL(writev)(fd, parts, number);
}

/* Linux has released the descriptor when it reports that what was written is lost. */
int close(int fd) {
  Path path;
  char what[sizeof(Path) + 16];
  int failed = 0;
  if (is_kind("close") && find_path(fd, path)) {
    const int only_read = (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY;
    snprintf(what, sizeof what, "%s%s", only_read ? "(only read) " : "", path);
    failed = fails("close", EIO, what);
  }
  const int result = REAL(close)(fd);
  if (!failed) return result;
  errno = EIO;
  return -1;
}

/* Imitates an old kernel, or a filter of system calls. Also in children: they call this between
 * fork and exec. */
int close_range(unsigned first, unsigned last, int flags) {
  if (strcmp(failing_kind, "close_range") != 0) return REAL(close_range)(first, last, flags);
  tell("child");
  errno = ENOSYS;
  return -1;
}

/* Imitates a broken medium. */
int fsync(int fd) { return fails_on_descriptor("fsync", EIO, fd) ? -1 : REAL(fsync)(fd); }
int fdatasync(int fd) { return fails_on_descriptor("fsync", EIO, fd) ? -1 : REAL(fdatasync)(fd); }
int syncfs(int fd) { return fails_on_descriptor("fsync", EIO, fd) ? -1 : REAL(syncfs)(fd); }
int statfs(const char* path, struct statfs* status) {
  return fails("statfs", EIO, path) ? -1 : REAL(statfs)(path, status);
}
int statfs64(const char* path, struct statfs64* status) {
  return fails("statfs", EIO, path) ? -1 : REAL(statfs64)(path, status);
}

/* Makes setting the flags of an open file fail; other uses of fcntl work. */
static int control(const char* name, int fd, int command, void* argument) {
  if (command == F_SETFL && fails_on_descriptor("setfl", ENOMEM, fd)) return -1;
  return ((int (*)(int, int, ...))dlsym(RTLD_NEXT, name))(fd, command, argument);
}
int fcntl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return control("fcntl", fd, command, argument);
}
int fcntl64(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return control("fcntl64", fd, command, argument);
}

/* Imitates a directory that cannot grow. */
static int fails_to_rename(const char* from, const char* to) {
  char both[8192];
  snprintf(both, sizeof both, "%s -> %s", from, to);
  return fails("rename", ENOSPC, both);
}
int rename(const char* from, const char* to) {
  return fails_to_rename(from, to) ? -1 : REAL(rename)(from, to);
}
int renameat2(int directory, const char* from, int other, const char* to, unsigned flags) {
  return fails_to_rename(from, to) ? -1 : REAL(renameat2)(directory, from, other, to, flags);
}
int mkstemp(char* name) { return fails("mkstemp", ENOSPC, name) ? -1 : REAL(mkstemp)(name); }
int mkstemp64(char* name) { return fails("mkstemp", ENOSPC, name) ? -1 : REAL(mkstemp64)(name); }
int mkdir(const char* path, mode_t mode) {
  return fails("mkdir", ENOSPC, path) ? -1 : REAL(mkdir)(path, mode);
}
int mkdirat(int directory, const char* path, mode_t mode) {
  return fails("mkdir", ENOSPC, path) ? -1 : REAL(mkdirat)(directory, path, mode);
}

/* Imitates a file system on which root has no special rights, such as one over the network. */
int chown(const char* path, uid_t user, gid_t group) {
  return fails("chown", EPERM, path) ? -1 : REAL(chown)(path, user, group);
}
int fchown(int fd, uid_t user, gid_t group) {
  return fails_on_descriptor("chown", EPERM, fd) ? -1 : REAL(fchown)(fd, user, group);
}

/* Imitates a peer that has gone. A reset is reported once; once the connection is shut down, the
 * system itself gives the errors of all later calls. */
static int resets(const char* kind, int fd) {
  if (count >= nth || !fails_on_descriptor(kind, ECONNRESET, fd)) return 0;
  if (stays) shutdown(fd, SHUT_RDWR);
  errno = ECONNRESET;
  return 1;
}
/* Calls that find nothing to receive fail anyway, and their number depends on the speed: they are
 * not counted. */
ssize_t recv(int fd, void* bytes, size_t size, int flags) {
  char byte;
  const int kept = errno;
  const ssize_t there = REAL(recv)(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  errno = kept;
  if (there >= 0 && resets("recv", fd)) return -1;
  return REAL(recv)(fd, bytes, size, flags);
}
ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  return resets("send", fd) ? -1 : REAL(send)(fd, bytes, size, flags);
}

/* Buffered files whose writes and closes use the functions above. */
static ssize_t write_file(void* fd, const char* bytes, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t written = write((int)(intptr_t)fd, bytes + done, size - done);
    if (written < 0) break;
    done += written;
  }
  return done;
}
static int close_file(void* fd) { return close((int)(intptr_t)fd); }
static FILE* open_for_writing(const char* path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  const cookie_io_functions_t functions = {NULL, write_file, NULL, close_file};
  return fd < 0 ? NULL : fopencookie((void*)(intptr_t)fd, "w", functions);
}
FILE* fopen(const char* path, const char* mode) {
  return *mode == 'w' ? open_for_writing(path) : REAL(fopen)(path, mode);
}
FILE* fopen64(const char* path, const char* mode) {
  return *mode == 'w' ? open_for_writing(path) : REAL(fopen64)(path, mode);
}
