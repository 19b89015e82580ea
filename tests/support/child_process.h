// Test helper: a child program whose standard output the test reads.
#ifndef ZQ_TESTS_CHILD_PROCESS_H
#define ZQ_TESTS_CHILD_PROCESS_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

// Starts argv[0] (looked up in PATH) with its output on a pipe read through
// out(). A child still running at destruction gets `stop_signal` and is
// reaped, so a failing test leaves nothing behind.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv, int stop_signal = SIGKILL)
      : stop_signal_(stop_signal) {
    int p[2];
    if (argv.empty() || pipe(p) != 0) return;
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(p[1], STDOUT_FILENO);
      close(p[0]), close(p[1]);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(p[1]);
    out_ = fdopen(p[0], "r");
  }
  ~ChildProcess() {
    if (pid_ > 0) kill(pid_, stop_signal_), wait();
    if (out_ != nullptr) std::fclose(out_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The child's standard output; null when it could not be started.
  FILE* out() const { return out_; }
  // The child's process id (for signals), -1 once reaped or not started.
  pid_t pid() const { return pid_; }
  // Waits for the child to end: its exit status, or -1.
  int wait() {
    int status = -1;
    if (pid_ > 0) waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  int stop_signal_;
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
};

#endif
