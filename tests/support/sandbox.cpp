/* sandbox - helpers for tests that run inside the test sandbox. */
#include "support/sandbox.h"

#include <errno.h>
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
        "echo \"state:$PWD $(nice) $(ulimit -t)\" >> '" + path + ".calls'\n"
        "echo \"signals:$(grep -E '^Sig(Ign|Blk)' /proc/$$/status | tr -d '\\t' | tr '\\n' ' ')\" >> '" + path +
        ".calls'\n"
        "echo end >> '" + path + ".calls'\n"
        "exit " + std::to_string(exit_code) + "\n";
    write_file(path, script);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0) << strerror(errno);
}

Calls read_calls(const std::string &stub_path)
{
    Calls calls;
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

CommandResult run_command(const std::string &command_line)
{
    char out[] = "/tmp/rebox-test-out.XXXXXX", err[] = "/tmp/rebox-test-err.XXXXXX";
    close(mkstemp(out));
    close(mkstemp(err));
    fflush(nullptr);
    int status = system(("(" + command_line + ") > " + out + " 2> " + err).c_str());
    CommandResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
    unlink(out);
    unlink(err);
    return result;
}
