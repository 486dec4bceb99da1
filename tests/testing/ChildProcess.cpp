#include "testing/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace testing_support {

ChildProcess::ChildProcess(const std::function<int()>& run) : pid_(fork()) {
    if (pid_ < 0) {
        throw std::runtime_error("cannot fork");
    }
    if (pid_ > 0) {
        return;
    }
    int status = 99;
    try {
        status = run();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "child process: %s\n", failure.what());
    }
    std::fflush(nullptr);
    _exit(status);
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        kill(SIGKILL);
        wait();
    }
}

int ChildProcess::wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0) {
    }
    pid_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

void ChildProcess::kill(int signal) const {
    ::kill(pid_, signal);
}

Signal::Signal() {
    if (pipe2(descriptors_, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot make a pipe");
    }
}

Signal::~Signal() {
    close(descriptors_[0]);
    close(descriptors_[1]);
}

void Signal::notify() {
    // The byte stays in the pipe, so everybody who waits now or later is released.
    if (write(descriptors_[1], "!", 1) != 1) {
        throw std::runtime_error("cannot write to a pipe");
    }
}

void Signal::wait() {
    waitFor(-1);
}

bool Signal::waitFor(int milliseconds) {
    pollfd readable{descriptors_[0], POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&readable, 1, milliseconds);
    } while (ready < 0);
    return ready == 1;
}

}  // namespace testing_support
