// Seeds, threads and the trouble that is made for them.

#include "stress_support.hpp"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <thread>

#include "faults.hpp"

namespace oxstress {

namespace {

std::atomic<bool> delays_are_on{false};
std::atomic<bool> refusals_are_on{false};

// A stream for each thread, in the order in which threads first come here.
Random& random_of_thread() {
  static std::atomic<uint64_t> threads{0};
  thread_local Random random = random_of(base_seed(), ++threads);
  return random;
}

void delay() {
  Random& random = random_of_thread();
  const uint64_t choice = random() % 1024;
  if (choice < 4) {
    const timespec moment{0, static_cast<long>(random() % 200'000)};
    oxtest::real::nanosleep(&moment, nullptr);
  } else if (choice < 64) {
    oxtest::real::sched_yield();
  }
}

// The call, with delays before and after it. errno stays what the call made it.
template <typename Call>
auto delayed(Call call) {
  if (!delays_are_on.load(std::memory_order_relaxed)) {
    return call();
  }
  delay();
  const auto result = call();
  const int error = errno;
  delay();
  errno = error;
  return result;
}

// The error with which the system refuses, or 0.
int refusal(int fallocate_mode) {
  if (!refusals_are_on.load(std::memory_order_relaxed) || !one_in(random_of_thread(), 8)) {
    return 0;
  }
  return (fallocate_mode & FALLOC_FL_PUNCH_HOLE) != 0 ? EINTR : ENOSPC;
}

void install_trouble() {
  using oxtest::Faults;
  namespace real = oxtest::real;
  Faults::on_pthread_mutex_lock = [](pthread_mutex_t* mutex) {
    return delayed([mutex] { return real::pthread_mutex_lock(mutex); });
  };
  Faults::on_pthread_mutex_unlock = [](pthread_mutex_t* mutex) {
    return delayed([mutex] { return real::pthread_mutex_unlock(mutex); });
  };
  Faults::on_mmap64 = [](void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
    return delayed([=] { return real::mmap64(address, length, protection, flags, fd, offset); });
  };
  Faults::on_fallocate64 = [](int fd, int mode, off64_t offset, off64_t length) {
    const int error = refusal(mode);
    if (error != 0) {
      errno = error;
      return -1;
    }
    return delayed([=] { return real::fallocate64(fd, mode, offset, length); });
  };
}

}  // namespace

uint64_t base_seed() {
  static const uint64_t seed = [] {
    const char* const given = std::getenv("OXPLIV_SEED");
    const uint64_t chosen = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
    std::printf("OXPLIV_SEED=%llu\n", static_cast<unsigned long long>(chosen));
    std::fflush(stdout);
    return chosen;
  }();
  return seed;
}

Random random_of(uint64_t seed, uint64_t stream) {
  std::seed_seq sequence{seed, seed >> 32, stream, stream >> 32};
  return Random(sequence);
}

std::chrono::minutes soak_time() {
  const char* const minutes = std::getenv("OXPLIV_SOAK_MINUTES");
  return std::chrono::minutes(minutes == nullptr ? 0 : std::atoi(minutes));
}

void Problems::add(const std::string& problem) {
  const std::lock_guard guard(_mutex);
  if (++_count <= kKept) {
    _problems.push_back(problem);
  }
  _any = true;
}

std::string Problems::text() const {
  const std::lock_guard guard(_mutex);
  std::string text;
  for (const std::string& problem : _problems) {
    text += problem + "\n";
  }
  if (_count > kKept) {
    text += "and " + std::to_string(_count - kKept) + " more\n";
  }
  return text;
}

Trouble::Trouble() {
  base_seed();
  install_trouble();
}

Trouble::~Trouble() {
  delays(false);
  refusals(false);
  oxtest::Faults::reset();
}

void Trouble::delays(bool on) {
  delays_are_on = on;
}

void Trouble::refusals(bool on) {
  refusals_are_on = on;
}

void run_together(const std::vector<std::function<void()>>& bodies) {
  std::latch ready(static_cast<std::ptrdiff_t>(bodies.size()));
  std::vector<std::thread> threads;
  threads.reserve(bodies.size());
  for (const auto& body : bodies) {
    threads.emplace_back([&ready, &body] {
      ready.arrive_and_wait();
      body();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void run_together(unsigned count, const std::function<void(unsigned)>& body) {
  std::vector<std::function<void()>> bodies;
  for (unsigned number = 0; number < count; ++number) {
    bodies.push_back([&body, number] { body(number); });
  }
  run_together(bodies);
}

}  // namespace oxstress
