#include "tool_run.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>

extern char** environ;

namespace sorvan::test {
namespace {

// The read end the test keeps and the write end the child gets, of a pipe or a terminal.
struct Channel {
    int parent = -1;
    int child = -1;
};

Channel openChannel(bool terminal) {
    int fds[2];
    if (terminal) {
        if (::openpty(&fds[0], &fds[1], nullptr, nullptr, nullptr) != 0) {
            ADD_FAILURE() << "openpty: " << std::strerror(errno);
            return {};
        }
        // Leave the tool's bytes as written (no "\n" to "\r\n").
        termios mode{};
        ::tcgetattr(fds[1], &mode);
        ::cfmakeraw(&mode);
        ::tcsetattr(fds[1], TCSANOW, &mode);
        return {fds[0], fds[1]};
    }
    if (::pipe(fds) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return {};
    }
    return {fds[0], fds[1]};
}

std::vector<std::string> environmentFor(const ToolCall& call) {
    std::map<std::string, std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry(*e);
        auto eq = entry.find('=');
        env[entry.substr(0, eq)] = eq == std::string::npos ? "" : entry.substr(eq + 1);
    }
    env.erase("SORVAN_LOG");
    for (const auto& [name, value] : call.env) {
        if (value) {
            env[name] = *value;
        } else {
            env.erase(name);
        }
    }
    std::vector<std::string> out;
    for (const auto& [name, value] : env) {
        out.push_back(name + "=" + value);
    }
    return out;
}

}  // namespace

ToolRun runSorvan(const ToolCall& call) {
    const std::string tool = std::string(SORVAN_BINARY_DIR) + "/tools/sorvan/sorvan";
    ToolRun run;
    int inFds[2];
    if (::pipe(inFds) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return run;
    }
    Channel out = openChannel(call.stdoutOnTerminal);
    Channel err = openChannel(call.stderrOnTerminal);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inFds[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out.child, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.child, STDERR_FILENO);
    for (int fd : {inFds[0], inFds[1], out.parent, out.child, err.parent, err.child}) {
        posix_spawn_file_actions_addclose(&actions, fd);
    }
    if (!call.stdoutFile.empty()) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, call.stdoutFile.c_str(), O_WRONLY,
                                         0);
    }
    std::vector<std::string> args{tool};
    args.insert(args.end(), call.args.begin(), call.args.end());
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    std::vector<std::string> env = environmentFor(call);
    std::vector<char*> envp;
    for (auto& e : env) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    // Only the child may hold the write ends, or the reads below never see the end.
    for (int fd : {inFds[0], out.child, err.child}) {
        ::close(fd);
    }
    if (spawned != 0) {
        ADD_FAILURE() << "cannot run " << tool << ": " << std::strerror(spawned);
        for (int fd : {inFds[1], out.parent, err.parent}) {
            ::close(fd);
        }
        return run;
    }
    // Inputs are small: written whole before reading.
    const char* in = call.input.data();
    std::size_t left = call.input.size();
    while (left > 0) {
        ssize_t n = ::write(inFds[1], in, left);
        if (n <= 0) {
            break;
        }
        in += n;
        left -= static_cast<std::size_t>(n);
    }
    ::close(inFds[1]);

    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    pollfd fds[2] = {{out.parent, POLLIN, 0}, {err.parent, POLLIN, 0}};
    std::string* sinks[2] = {&run.out, &run.err};
    int open = 2;
    while (open > 0) {
        auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (remaining.count() <= 0) {
            ADD_FAILURE() << "sorvan did not finish within 120 s; killed";
            ::kill(pid, SIGKILL);
            break;
        }
        if (::poll(fds, 2, static_cast<int>(remaining.count())) < 0 && errno != EINTR) {
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                // End of a pipe; a terminal whose other side closed says EIO.
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& fd : fds) {
        if (fd.fd >= 0) {
            ::close(fd.fd);
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

}  // namespace sorvan::test
