/* The login shell of the source host's accounts: `recording-shell -c COMMAND`.

   Records the command line and its standard input, byte for byte and numbered in the order of the
   starts, in the directory next to this program:
       records/0001.login  records/0001.command  records/0001.stdin
   then runs the command with /bin/sh and ends like it, by the same signal if it was killed.

   Every remote command of the tests starts it, so it is compiled: a script would take longer to
   start than most commands take. */
#define _GNU_SOURCE
#include <err.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

/* Input that the command leaves unread is recorded up to this many bytes: the sender of a password
   to a command that asks for none gets its answer, and the sender of megabytes to a command that
   has ended still meets a closed channel. */
static const size_t UNREAD_LIMIT = 1 << 20;

static int write_all(int fd, const char* bytes, size_t count) {
  while (count > 0) {
    ssize_t wrote = write(fd, bytes, count);
    if (wrote < 0) return -1;
    bytes += wrote;
    count -= wrote;
  }
  return 0;
}

static int create(int records, int number, const char* kind) {
  char name[32];
  snprintf(name, sizeof name, "%04d.%s", number, kind);
  return openat(records, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}

static void keep(int records, int number, const char* kind, const char* text) {
  int file = create(records, number, kind);
  if (file < 0 || write_all(file, text, strlen(text)) || close(file))
    err(1, "%04d.%s", number, kind);
}

static int open_records(void) {
  char path[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - sizeof "records");
  if (length < 0) err(1, "/proc/self/exe");
  path[length] = 0;
  strcpy(strrchr(path, '/') + 1, "records");
  int records = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (records < 0) err(1, "%s", path);
  return records;
}

/* Records all but the input; returns the file for the input. */
static int begin_record(const char* command) {
  int records = open_records();
  int number = 1;
  int input;
  while ((input = create(records, number, "stdin")) < 0 && errno == EEXIST) ++number;
  if (input < 0) err(1, "%04d.stdin", number);
  const struct passwd* account = getpwuid(getuid());
  if (!account) errx(1, "no account with the id %d", (int)getuid());
  keep(records, number, "login", account->pw_name);
  keep(records, number, "command", command);
  close(records);
  return input;
}

/* Passes the standard input to the command, and records a copy. */
static void copy_input(int record, int to_command) {
  static char block[65536];
  int gone = 0;
  size_t unread = 0;
  ssize_t count;
  signal(SIGPIPE, SIG_IGN);
  while (unread <= UNREAD_LIMIT && (count = read(0, block, sizeof block)) > 0) {
    if (write_all(record, block, count)) err(1, "the record of the input");
    if (!gone && write_all(to_command, block, count)) gone = 1;
    if (gone) unread += count;
  }
}

static pid_t fork_or_fail(void) {
  pid_t child = fork();
  if (child < 0) err(1, "fork");
  return child;
}

static int ending_of(pid_t child) {
  int status;
  if (waitpid(child, &status, 0) != child) err(1, "waitpid");
  return status;
}

int main(int count, char** words) {
  if (count != 3 || strcmp(words[1], "-c") != 0) errx(1, "usage: recording-shell -c COMMAND");
  int record = begin_record(words[2]);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC)) err(1, "pipe");
  pid_t command = fork_or_fail();
  if (command == 0) {
    dup2(ends[0], 0);
    execl("/bin/sh", "/bin/sh", "-c", words[2], (char*)NULL);
    err(1, "/bin/sh");
  }
  close(ends[0]);
  int nothing = open("/dev/null", O_WRONLY);
  dup2(nothing, 1);
  dup2(nothing, 2);
  /* The copy is a process of its own, so that this one can simply wait. */
  pid_t copier = fork_or_fail();
  if (copier == 0) {
    copy_input(record, ends[1]);
    _exit(0);
  }
  close(0);
  close(ends[1]);
  int status = ending_of(command);
  ending_of(copier);
  if (WIFSIGNALED(status)) {
    signal(WTERMSIG(status), SIG_DFL);
    raise(WTERMSIG(status));
  }
  return WEXITSTATUS(status);
}
