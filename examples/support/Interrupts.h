#pragma once

#include <functional>
#include <thread>
#include <utility>

#include <pthread.h>
#include <signal.h>

// Calls the handler, on a thread of its own, when the program is interrupted (SIGINT). Make it before any other thread.
class Interrupts {
 public:
  explicit Interrupts(std::function<void()> handler) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    thread_ = std::thread([this, handler = std::move(handler)] {
      for (int signal = 0; sigwait(&signals_, &signal) == 0 && signal == SIGINT;) handler();
    });
  }
  ~Interrupts() {
    pthread_kill(thread_.native_handle(), SIGUSR1);
    thread_.join();
  }
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

 private:
  sigset_t signals_;
  std::thread thread_;
};
