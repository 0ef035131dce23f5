#include "cli/batch.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "cli/interrupt.h"
#include "cli/progress.h"

extern char** environ;

namespace mendaris_cli {

namespace {

struct Worker {
  pid_t pid = -1;
  int pipe = -1;  // its stderr
  size_t file = 0;
  std::string messages;
  double start = 0.0;
};

double secondsNow() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

std::string selfPath() {
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) return "mendaris";
  self[n] = '\0';
  return self;
}

bool startWorker(const std::string& program, const std::vector<std::string>& options, const BatchFile& file,
                 Worker& worker) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  std::vector<std::string> args = {program, "--quiet"};
  args.insert(args.end(), options.begin(), options.end());
  args.push_back("--");
  args.push_back(file.input);
  args.push_back(file.output);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  int failed = posix_spawn(&worker.pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (failed != 0) {
    close(fds[0]);
    return false;
  }
  worker.pipe = fds[0];
  worker.messages.clear();
  worker.start = secondsNow();
  return true;
}

}  // namespace

int defaultJobs() {
  unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : int(n);
}

BatchResult runBatch(const std::vector<BatchFile>& files, const std::vector<std::string>& workerOptions,
                     int parallel) {
  BatchResult result;
  std::string program = selfPath();
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
      if (!startWorker(program, workerOptions, files[next], worker)) {
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
