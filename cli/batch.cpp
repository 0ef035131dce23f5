#include "cli/batch.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>

#include "cli/interrupt.h"
#include "cli/processors.h"
#include "cli/progress.h"

namespace mendaris_cli {

namespace {

struct Worker {
  pid_t pid = -1;
  int pipe = -1;  // its stderr
  size_t file = 0;
  std::string messages;
  double start = 0.0;
  int share = -1;  // its share of the processors; -1 all of them
};

double secondsNow() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// A worker is this process forked: the plug-in is loaded already and has
// never run, so each worker starts from the state a fresh process has, at no
// cost of starting one. Its stderr is a pipe to here.
bool startWorker(const std::function<int(const BatchFile&)>& runOne, const BatchFile& file, int shares,
                 Worker& worker) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  fflush(nullptr);
  worker.pid = fork();
  if (worker.pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (worker.pid == 0) {
    keepProcessorShare(worker.share, shares);
    close(fds[0]);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    progressSetUp(true);
    int status = runOne(file);
    fflush(nullptr);
    _exit(status);
  }
  close(fds[1]);
  fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  worker.pipe = fds[0];
  worker.messages.clear();
  worker.start = secondsNow();
  return true;
}

}  // namespace

int defaultJobs() { return processorCount(); }

BatchResult runBatch(const std::vector<BatchFile>& files, const std::function<int(const BatchFile&)>& runOne,
                     int parallel) {
  BatchResult result;
  std::vector<Worker> running;
  size_t next = 0, finished = 0;
  bool forwarded = false;
  auto showProgress = [&]() {
    std::string label = "[" + std::to_string(finished) + "/" + std::to_string(files.size()) + "]";
    for (const Worker& w : running) {
      const std::string& name = files[w.file].input;
      size_t slash = name.find_last_of('/');
      label += " " + (slash == std::string::npos ? name : name.substr(slash + 1));
    }
    progressBegin(label);
    progressShow("working", double(finished) / double(files.size()));
  };

  while (next < files.size() || !running.empty()) {
    if (interrupted()) {
      result.stopped = true;
      // Workers in the terminal's process group had the signal already; the others get it here.
      if (!forwarded)
        for (const Worker& w : running) kill(w.pid, interruptSignal);
      forwarded = true;
    }
    while (!result.stopped && next < files.size() && int(running.size()) < parallel) {
      Worker worker;
      worker.file = next;
      // The lowest share no running worker holds.
      if (parallel >= 2 && files.size() - next >= size_t(parallel)) {
        std::vector<bool> held(size_t(parallel), false);
        for (const Worker& w : running) {
          if (w.share >= 0) held[size_t(w.share)] = true;
        }
        worker.share = 0;
        while (held[size_t(worker.share)]) ++worker.share;
      }
      if (!startWorker(runOne, files[next], parallel, worker)) {
        progressClear();
        fprintf(stderr, "mendaris: %s: cannot start a worker: %s\n", files[next].input.c_str(), strerror(errno));
        ++result.failures;
        ++next;
        ++finished;
        continue;
      }
      ++next;
      running.push_back(worker);
    }
    if (running.empty()) break;
    showProgress();

    std::vector<struct pollfd> polls;
    for (const Worker& w : running) polls.push_back({w.pipe, POLLIN, 0});
    if (poll(polls.data(), polls.size(), 200) <= 0) continue;
    for (size_t i = running.size(); i-- > 0;) {
      if (polls[i].revents == 0) continue;
      Worker& w = running[i];
      char buffer[4096];
      ssize_t n = read(w.pipe, buffer, sizeof(buffer));
      if (n > 0) {
        w.messages.append(buffer, size_t(n));
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      // The worker closed its stderr: it is ending.
      close(w.pipe);
      int status = 0;
      while (waitpid(w.pid, &status, 0) < 0 && errno == EINTR) {
      }
      ++finished;
      progressClear();
      fputs(w.messages.c_str(), stderr);
      bool done = WIFEXITED(status) && WEXITSTATUS(status) == 0;
      bool stopped = (WIFEXITED(status) && WEXITSTATUS(status) > 128) || WIFSIGNALED(status);
      if (stopped && interrupted()) {
        result.stopped = true;
      } else if (WIFSIGNALED(status)) {
        fprintf(stderr, "mendaris: %s: the worker was ended by signal %d; %s was not written\n",
                files[w.file].input.c_str(), WTERMSIG(status), files[w.file].output.c_str());
        ++result.failures;
      } else if (!done) {
        ++result.failures;
      } else if (progressShown()) {
        fprintf(stderr, "mendaris: %s -> %s (%.1f s)\n", files[w.file].input.c_str(), files[w.file].output.c_str(),
                secondsNow() - w.start);
      }
      running.erase(running.begin() + long(i));
    }
  }
  progressClear();
  return result;
}

}  // namespace mendaris_cli
