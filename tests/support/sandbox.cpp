/* sandbox - helpers for tests that run inside the test sandbox. */
#include "support/sandbox.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

const char *sandbox_skip_reason(void)
{
    if (getenv("REBOX_SANDBOX"))
        return nullptr;
    if (const char *why = getenv("REBOX_SANDBOX_SKIP"))
        return why;
    return "not started through tests/support/sandbox";
}

std::string sandbox_root(void)
{
    const char *root = getenv("REBOX_SANDBOX");
    return root ? root : "";
}

std::string sandbox_path(const std::string &relative)
{
    return sandbox_root() + "/" + relative;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

void write_recording_stub(const std::string &path, int exit_code)
{
    std::string script =
        "#!/bin/sh\n"
        "for a in \"$@\"; do printf 'arg:%s\\n' \"$a\"; done >> '" + path + ".calls'\n"
        "echo end >> '" + path + ".calls'\n"
        "exit " + std::to_string(exit_code) + "\n";
    write_file(path, script);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0) << strerror(errno);
}

std::vector<std::vector<std::string>> read_calls(const std::string &stub_path)
{
    std::vector<std::vector<std::string>> calls;
    std::istringstream in(read_file(stub_path + ".calls"));
    std::vector<std::string> call;
    std::string line;

    while (std::getline(in, line)) {
        if (line == "end") {
            calls.push_back(call);
            call.clear();
        } else if (line.rfind("arg:", 0) == 0) {
            call.push_back(line.substr(4));
        }
    }
    return calls;
}

/* slurp - everything readable from a descriptor */
static std::string slurp(int fd)
{
    std::string text;
    char buf[4096];
    ssize_t n;

    while ((n = read(fd, buf, sizeof(buf))) > 0)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

CommandResult run_command(const std::string &command_line)
{
    CommandResult result{-1, "", ""};
    char out_name[] = "/tmp/rebox-test-out.XXXXXX";
    char err_name[] = "/tmp/rebox-test-err.XXXXXX";
    int out_fd = mkstemp(out_name);
    int err_fd = mkstemp(err_name);

    if (out_fd < 0 || err_fd < 0) {
        ADD_FAILURE() << "mkstemp: " << strerror(errno);
        return result;
    }
    unlink(out_name);
    unlink(err_name);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execl("/bin/sh", "sh", "-c", command_line.c_str(), (char *)nullptr);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    lseek(out_fd, 0, SEEK_SET);
    lseek(err_fd, 0, SEEK_SET);
    result.out = slurp(out_fd);
    result.err = slurp(err_fd);
    close(out_fd);
    close(err_fd);
    return result;
}
