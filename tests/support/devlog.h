/* devlog - a private /dev/log to read what a test's process sends to syslog.
 *
 * devlog_listen() lays a writable overlay over /dev in the test's own mount
 * namespace and binds a datagram socket at /dev/log; devlog_read() collects
 * the messages until one holds a given text, or a given number do (or ten
 * seconds pass).
 */
#pragma once

#include <string>
#include <vector>

/* devlog_listen - the socket's descriptor, or -1 with a test failure */
int devlog_listen(void);

/* devlog_read - the messages received, oldest first, up to the one that is
 * the times-th to hold last; closes fd */
std::vector<std::string> devlog_read(int fd, const std::string &last, int times = 1);
