/* devlog - a private /dev/log for the tests of syslog messages. */
#include "support/devlog.h"

#include "support/sandbox.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int devlog_listen(void)
{
    std::string root = sandbox_root();
    CommandResult r = run_command("mkdir -p " + root + "/dev-up " + root + "/dev-wk && mount -t overlay overlay "
                                  "-o lowerdir=/dev,upperdir=" + root + "/dev-up,workdir=" + root +
                                  "/dev-wk /dev && rm -f /dev/log");
    if (r.status != 0) {
        ADD_FAILURE() << "no private /dev: " << r.err;
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        ADD_FAILURE() << "bind /dev/log: " << strerror(errno);
        close(fd);
        return -1;
    }
    return fd;
}

std::vector<std::string> devlog_read(int fd, const std::string &last, int times)
{
    std::vector<std::string> got;
    for (int waited = 0; waited < 200 && times > 0;) {
        char buf[8192];
        ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n > 0) {
            got.emplace_back(buf, n);
            times -= got.back().find(last) != std::string::npos;
        } else {
            usleep(50000);
            waited++;
        }
    }
    close(fd);
    return got;
}
