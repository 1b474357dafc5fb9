#include "hostlib/messlog.h"

#include <syslog.h>

void messlog2(const std::string& text) noexcept {
  const std::string::size_type end = text.find_last_not_of('\n');
  const int length = end == std::string::npos ? 0 : static_cast<int>(end + 1);
  openlog("sondrel", LOG_PID, LOG_USER);
  syslog(LOG_ERR, "%.*s", length, text.c_str());
  // The descriptor must not stay open: a forked child closes descriptors by
  // number, and the next line would go to whatever took that number.
  closelog();
}
