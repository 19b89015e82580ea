// Test helper: a child process killed with SIGKILL in the middle of its work.
#ifndef ZQ_TESTS_POINTS_KILL_CHILD_H
#define ZQ_TESTS_POINTS_KILL_CHILD_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

// Forks a child that runs `work(ready)` and then exits; `ready()` tells the
// parent that the first unit of work is done. The parent waits for that (or
// the child's early end), lets the child go on for `more_us`, kills it with
// SIGKILL and reaps it. False when no child could be made or it never got ready.
inline bool kill_during(const std::function<void(const std::function<void()>& ready)>& work,
                        useconds_t more_us) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return false;
  const pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    close(pipe_fds[0]);
    bool told = false;
    work([&] {
      if (!told && write(pipe_fds[1], "r", 1) == 1) told = true;
    });
    _exit(0);
  }
  close(pipe_fds[1]);  // a child that dies early ends the read
  char byte;
  const bool ready = read(pipe_fds[0], &byte, 1) == 1;
  close(pipe_fds[0]);
  usleep(more_us);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  return ready;
}

#endif
