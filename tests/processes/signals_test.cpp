// Signals that come while the library works. A commit keeps the thread's signals away, but for those that report faults
// of its own; what is interrupted all the same is repeated or taken back; and a thread's signal mask is after each call
// what it was before. System calls are watched and answered where they leave the library; storms of real signals check
// the same without looking inside.

#include <fcntl.h>
#include <sys/time.h>

#include <csignal>
#include <random>
#include <set>
#include <string_view>
#include <thread>

#include "child.hpp"
#include "guards.hpp"
#include "interface/heap.hpp"
#include "interposed.hpp"
#include "machine.hpp"

namespace oxproc {
namespace {

using oxiface::account_words;
using oxiface::expect_refused;
using oxiface::kAny;
using oxiface::kPage;
using oxiface::kPartial;
using oxiface::Log;
using oxiface::LogLine;
using oxiface::ox;
using oxiface::pages;
using oxiface::Visible;
using oxiface::zone_words;

constexpr uint64_t kMinus1 = uint64_t{0} - 1;

constexpr uint64_t minus_pages(uint64_t count) {
  return pages(count) * kMinus1;
}

std::set<int> members(const sigset_t& mask) {
  std::set<int> all;
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    if (sigismember(&mask, signal) == 1) {
      all.insert(signal);
    }
  }
  return all;
}

std::set<int> mask_now() {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return members(mask);
}

void set_mask(const std::set<int>& signals) {
  sigset_t mask;
  sigemptyset(&mask);
  for (const int signal : signals) {
    sigaddset(&mask, signal);
  }
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

// All that a thread can block.
std::set<int> every_signal() {
  const auto kept = mask_now();
  sigset_t mask;
  sigfillset(&mask);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  const auto all = mask_now();
  set_mask(kept);
  return all;
}

const std::set<int> kFaults = {SIGILL, SIGBUS, SIGFPE, SIGSEGV};

std::set<int> without_faults(std::set<int> signals) {
  for (const int signal : kFaults) {
    signals.erase(signal);
  }
  return signals;
}

std::set<int> both(std::set<int> first, const std::set<int>& second) {
  first.insert(second.begin(), second.end());
  return first;
}

constexpr bool kHandlersAreWatched = std::string_view(OXPLIV_SANITIZE).find("thread") != std::string_view::npos;

// A handler that counts and spoils errno, as a careless one does. System calls that it interrupts are not restarted.
std::atomic<int> handled{0};
std::atomic<int> handled_of[65];                      // by signal
thread_local volatile sig_atomic_t handled_here = 0;  // by this thread

void count_and_spoil(int) {
  ++handled;
  handled_here = handled_here + 1;
  if (!kHandlersAreWatched) {
    errno = EBADF;
  }
}

// One that keeps errno: what runs between a system call and the look at its errno has to.
void count_alone(int signal) {
  const int kept = errno;
  ++handled_of[signal];
  count_and_spoil(signal);
  errno = kept;
}

void install(int signal, void (*handler)(int) = count_and_spoil) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  ASSERT_EQ(sigaction(signal, &action, nullptr), 0);
}

// A heap of two zones whose pages are committed when they are first used.
class Signals : public oxiface::HeapTest {
 protected:
  void SetUp() override {
    auto config = oxiface::configuration(64, 128);
    config.prefund = 0;  // 32 pages are committed, whatever is asked for
    start(config);
    zone(0, 40, 64);
    zone(64, 24, 64, false);
    heap = space(128, 0, 0, 0);
    alias(heap, 128);
  }

  void TearDown() override {
    hooks() = {};
    set_mask({});
  }

  long heap = -1;
};

using Commits = Signals;

TEST_F(Commits, RunWithEverySignalBlockedButTheThreadsOwnFaults) {
  const auto expected = without_faults(every_signal());
  std::vector<std::set<int>> seen;
  hooks().fallocate = [&](int, off64_t, off64_t) {
    seen.push_back(mask_now());
    return 0;
  };
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(3)), 0);
  EXPECT_EQ(seen, std::vector<std::set<int>>(3, expected));
}

TEST_F(Commits, KeepBlockedWhatTheThreadHasBlocked) {
  set_mask({SIGSEGV, SIGFPE, SIGUSR2});
  const auto expected = both(without_faults(every_signal()), {SIGSEGV, SIGFPE});
  std::vector<std::set<int>> seen;
  hooks().fallocate = [&](int, off64_t, off64_t) {
    seen.push_back(mask_now());
    return 0;
  };
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(1)), 0);
  EXPECT_EQ(seen, std::vector<std::set<int>>{expected});
  EXPECT_EQ(mask_now(), (std::set<int>{SIGSEGV, SIGFPE, SIGUSR2}));
}

TEST_F(Commits, SignalsThatReportFaults_AreDeliveredAtOnce) {
  for (const int signal : kFaults) {
    install(signal);
  }
  int inside = 0;
  hooks().fallocate = [&](int, off64_t, off64_t) {
    for (const int signal : kFaults) {
      raise(signal);
    }
    inside = handled;
    return 0;
  };
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(1)), 0);
  EXPECT_EQ(inside, 4);
}

TEST_F(Commits, OtherSignals_WaitUntilTheCommitIsOver) {
  install(SIGUSR1);
  install(SIGRTMIN);
  int inside = -1;
  hooks().fallocate = [&](int, off64_t, off64_t) {
    raise(SIGUSR1);
    raise(SIGRTMIN);
    inside = handled;
    return 0;
  };
  ASSERT_EQ(ox().pmem_fund_account(kAny, 2, pages(1)), 0);
  usleep(1000);
  EXPECT_EQ(inside, 0);
  EXPECT_EQ(handled, 2);
}

TEST_F(Commits, HandlerThatRunsAfterAFailure_DoesNotSpoilItsErrno) {
  if (kHandlersAreWatched) {
    GTEST_SKIP() << "the sanitizer reports handlers that change errno";
  }
  install(SIGUSR1);
  hooks().fallocate = [&](int, off64_t, off64_t) {
    raise(SIGUSR1);
    return ENOSPC;
  };
  expect_refused({{"file system full", [] { return ox().pmem_fund_account(kAny, 2, pages(1)); }, ENOMEM}});
  usleep(1000);
  EXPECT_EQ(handled, 1);
}

// The kernel is told to interrupt what can't be: the caller learns of it and nothing has happened.
TEST_F(Commits, InterruptedInSpiteOfThat_AreRefusedWithEintr) {
  hooks().fallocate = [](int mode, off64_t, off64_t) { return mode == 0 ? EINTR : 0; };
  expect_refused({{"growing", [] { return ox().pmem_fund_account(kAny, 2, pages(2)); }, EINTR}});
  hooks().fallocate = nullptr;
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(2)), 0);
}

TEST_F(Signals, ResizeOfTheFile_IsRepeatedWhileItIsInterrupted) {
  int calls = 0;
  hooks().truncate = [&](off64_t) { return ++calls <= 3 ? EINTR : 0; };
  const uint64_t before = oxiface::file_bytes();
  Log::take();
  EXPECT_EQ(ox().pmem_set_account_maximum(kAny, 3, pages(5)), 0);
  EXPECT_EQ(calls, 4);
  EXPECT_EQ(oxiface::file_bytes(), before + pages(5));
  EXPECT_EQ(
      Log::take(),
      (std::vector<LogLine>{{4, "The backing storage resized to " + std::to_string(before + pages(5)) + " bytes"}}));
}

class InterruptedUncommits : public Signals {
 protected:
  // The page numbers whose uncommitting is interrupted, and how often.
  void interrupt(std::map<int64_t, int> times) {
    interruptions = std::move(times);
    hooks().fallocate = [this](int mode, off64_t offset, off64_t) {
      if (mode == 0) {
        return 0;
      }
      const auto found = interruptions.find(offset / static_cast<off64_t>(kPage));
      return found != interruptions.end() && found->second-- > 0 ? EINTR : 0;
    };
  }

  static LogLine interrupted(int64_t page) {
    return {4, "Obtained errno=4 when attempting to uncommit memory for page " + std::to_string(page)};
  }

  static bool is_committed(uint64_t page) { return ox().pmem_is_funded(static_cast<int64_t>(pages(page))) == 1; }

  std::map<int64_t, int> interruptions;
};

TEST_F(InterruptedUncommits, PageIsPutBackAndTriedAgain) {
  const auto before = account_words(2);
  const uint64_t committed = oxiface::committed_bytes();
  interrupt({{1, 1}});
  Log::take();
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, minus_pages(6)), 6);
  EXPECT_EQ(Log::take(), std::vector<LogLine>{interrupted(1)});
  EXPECT_EQ(account_words(2)[6], before[6] - pages(6));
  EXPECT_EQ(oxiface::committed_bytes(), committed - pages(6));
  EXPECT_EQ(zone_words(0)[4] + zone_words(1)[4], pages(6));
}

TEST_F(InterruptedUncommits, PageInterruptedAlways_StaysCommittedAndFree) {
  const auto before = account_words(2);
  const uint64_t free_before = zone_words(0)[0];
  const uint64_t committed = oxiface::committed_bytes();
  interrupt({{1, 1000}});
  // Every committed page is asked for: the one that can't be given back is made up for by none.
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, minus_pages(32)), 31);
  EXPECT_EQ(account_words(2)[6], before[6] - pages(31));
  EXPECT_EQ(account_words(2)[0], account_words(2)[6]);
  EXPECT_EQ(oxiface::committed_bytes(), committed - pages(31));
  EXPECT_EQ(zone_words(0)[0], free_before - pages(31));
  EXPECT_EQ(zone_words(0)[4], pages(31));
  EXPECT_TRUE(is_committed(1));
  EXPECT_FALSE(is_committed(0));
  EXPECT_FALSE(is_committed(2));

  interrupt({});  // it is not locked, and gives its memory back as others do
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, minus_pages(1)), 1);
  EXPECT_FALSE(is_committed(1));
  EXPECT_EQ(oxiface::committed_bytes(), committed - pages(32));
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, pages(32)), 32);
  EXPECT_EQ(oxiface::committed_bytes(), committed);
}

TEST_F(InterruptedUncommits, EveryPageInterrupted_GivesNothingBackAndLosesNothing) {
  hooks().fallocate = [](int mode, off64_t, off64_t) { return mode == 0 ? 0 : EINTR; };
  const auto before = Visible::now();
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, minus_pages(8)), 0);
  const std::string changed = difference(before, Visible::now());
  // The watermarks remember that the fund was smaller and that pages were off the free lists for a moment.
  for (size_t at = 0; at < changed.size(); at = changed.find('\n', at) + 1) {
    const std::string line = changed.substr(at, changed.find('\n', at) - at);
    EXPECT_TRUE(line.starts_with("usage word 26:") || line.starts_with("pzone 0 word 4:") ||
                line.starts_with("pzone 1 word 4:"))
        << line;
  }
  hooks().fallocate = nullptr;
  EXPECT_EQ(ox().pmem_fund_account(kAny, kPartial | 2, minus_pages(8)), 8);
}

// ---- The mask ------------------------------------------------------------------------------------------------------

class Masks : public Signals {
 protected:
  // All that commits, gives back, maps and asks, with commits that fail now and then. Returns what broke the mask.
  std::string calls_that_break(const std::set<int>& mask) {
    std::string broken;
    const auto check = [&](const char* call) {
      if (mask_now() != mask) {
        broken += std::string(call) + " ";
        set_mask(mask);
      }
    };
    for (const int error : {0, ENOSPC, EIO, EINTR}) {
      int commits = 0;
      hooks().fallocate = [&](int mode, off64_t, off64_t) { return mode == 0 && ++commits % 2 == 0 ? error : 0; };
      ox().pmem_fund_account(kAny, kPartial | 2, pages(3));
      check("growing");
      ox().pmem_fund_account(kAny, kPartial | 2, minus_pages(2));
      check("shrinking");
      ox().pmem_fund_account(kAny, kPartial | 2, pages(2));
      check("growing again");
      ox().pretouch_committed_pages(4, nullptr);
      check("pretouching");
      ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 2);
      check("prefilling");
      const int64_t block = ox().mmap_within_space(heap, 0, pages(3), 2, 0);
      check("allocating");
      if (block != -1) {
        ox().munmap_from_space(heap, reinterpret_cast<char*>(block), pages(3), 2, 0);
        check("freeing");
      }
      ox().pmem_set_account_maximum(kAny, 5, pages(1));
      check("setting a maximum");
    }
    hooks().fallocate = nullptr;
    return broken;
  }
};

TEST_F(Masks, AfterEachCall_AreExactlyWhatTheyWere) {
  const auto all = every_signal();
  std::vector<std::set<int>> masks = {{},
                                      all,
                                      {SIGSEGV, SIGBUS, SIGILL, SIGFPE},
                                      without_faults(all),
                                      {SIGUSR1, SIGRTMIN, SIGRTMAX},
                                      {SIGSEGV},
                                      {SIGTERM, SIGINT, SIGBUS}};
  std::mt19937 random(static_cast<unsigned>(seed_or(7)));
  for (int i = 0; i < 8; ++i) {
    std::set<int> mask;
    for (const int signal : all) {
      if (random() % 2 == 0) {
        mask.insert(signal);
      }
    }
    masks.push_back(mask);
  }
  for (const auto& mask : masks) {
    set_mask(mask);
    const std::string broken = calls_that_break(mask);
    set_mask({});
    EXPECT_EQ(broken, "") << "mask " << testing::PrintToString(mask);
  }
}

TEST_F(Masks, OfOtherThreads_AreTheirOwnDuringACommit) {
  std::set<int> seen = {-1};
  hooks().fallocate = [&](int, off64_t, off64_t) {
    std::thread([&] {
      pthread_sigmask(SIG_SETMASK, nullptr, nullptr);
      seen = mask_now();
    }).join();
    return 0;
  };
  set_mask({SIGUSR2});
  // A thread begins with the mask of the one that makes it: here that of the commit.
  const auto expected = both(without_faults(every_signal()), {SIGUSR2});
  EXPECT_EQ(ox().pmem_fund_account(kAny, 2, pages(1)), 0);
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(mask_now(), std::set<int>{SIGUSR2});
}

// ---- Storms --------------------------------------------------------------------------------------------------------

// Signals at one thread as fast as another can send them, and besides from the kernel's clocks: the timers of an alarm
// and of a profiler, and one of the thread's own.
class SignalStorm {
 public:
  explicit SignalStorm(pthread_t target) {
    for (const int signal : kSignals) {
      install(signal, count_alone);
    }
    const itimerval often{{0, 100}, {0, 100}};
    setitimer(ITIMER_REAL, &often, nullptr);
    setitimer(ITIMER_PROF, &often, nullptr);
    start_timer();
    _sender = std::thread([this, target] {
      sigset_t none;
      sigfillset(&none);
      pthread_sigmask(SIG_SETMASK, &none, nullptr);
      while (!_over.load(std::memory_order_relaxed)) {
        pthread_kill(target, SIGUSR1);
        for (int spin = 0; spin < 200 && !_over.load(std::memory_order_relaxed); ++spin) {
          std::atomic_signal_fence(std::memory_order_seq_cst);
        }
      }
    });
  }

  ~SignalStorm() {
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    setitimer(ITIMER_PROF, &never, nullptr);
    timer_delete(_timer);
    _over = true;
    _sender.join();
  }

  static inline const int kSignals[] = {SIGUSR1, SIGALRM, SIGPROF, SIGRTMIN};

  SignalStorm(const SignalStorm&) = delete;
  SignalStorm& operator=(const SignalStorm&) = delete;

 private:
  // Of the thread that makes the storm, as samplers of single threads use it.
  void start_timer() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGRTMIN;
    event._sigev_un._tid = gettid();
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &_timer), 0);
    const itimerspec often{{0, 300'000}, {0, 300'000}};
    ASSERT_EQ(timer_settime(_timer, 0, &often, nullptr), 0);
  }

  std::atomic<bool> _over{false};
  timer_t _timer{};
  std::thread _sender;
};

struct Kind {
  const char* name;
  const char* mount_options = nullptr;  // of a tmpfs
  bool explicit_pages = false;
  bool transparent = false;  // and taken aggressively: commits touch
  bool named = false;
};

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

class Storms : public testing::TestWithParam<Kind> {
 protected:
  static bool has_transparent_pages() {
    const auto enabled = oxtest::Knob::read("/sys/kernel/mm/transparent_hugepage/enabled");
    return enabled.has_value() && enabled->find("[never]") == std::string::npos;
  }

  // Not every kernel lets a signal interrupt a file's growing or the allocation of its blocks. What those do that let
  // it: EINTR when a handler ran meanwhile.
  static int interrupted_by_then() {
    const int before = handled_here;
    for (int spin = 0; spin < 20'000; ++spin) {
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    return handled_here == before ? 0 : EINTR;
  }

  static constexpr uint64_t kInitial = 36;
  static constexpr uint64_t kMaximum = 60;
  static constexpr long kPool = kMaximum + 4;

  // Every call of a host's life succeeds, and leaves the mask alone.
  static void live(const char* path, int rounds) {
    const auto mask = mask_now();
    const auto fine = [&](int64_t result, int64_t expected, const char* call) {
      ASSERT_EQ(result, expected) << call << ": " << strerror(errno);
      ASSERT_EQ(mask_now(), mask) << call;
    };
    auto config = oxiface::configuration(kInitial, kMaximum);
    config.prefund = 0;  // 32 pages are committed, whatever is asked for
    config.backing_storage_path = path;
    config.use_explicit_huge_pages = GetParam().explicit_pages ? 1 : 0;
    config.use_transparent_huge_pages = config.aggressively_acquire_thp = GetParam().transparent ? 1 : 0;
    fine(ox().initialize(&config), 0, "start-up");
    fine(ox().pmem_using_explicit_huge_pages(), GetParam().explicit_pages ? 1 : 0, "mode");
    fine(ox().pmem_set_account_maximum(kAny, 2, pages(kMaximum)), 0, "setting a maximum");
    fine(ox().pmem_fund_account(kAny, 2, pages(kInitial)), 0, "making an account");
    fine(ox().create_pzone(0, pages(kInitial / 2), pages(kMaximum / 2), 1), 0, "making a zone");
    fine(ox().create_pzone(pages(kMaximum / 2), pages(kInitial / 2), pages(kMaximum / 2), 0), 1, "making a zone");
    fine(ox().register_space(pages(64), pages(2), 0, oxiface::kMapAll), 0, "registering a space");
    for (int alias = 0; alias < 2; ++alias) {
      char* const base = oxiface::reserve(64);
      fine(ox().register_alias_for_space(0, base, oxiface::kReadWrite, oxiface::kMultiPage), alias, "an alias");
    }
    std::vector<char*> all;  // the last of them are committed as they are handed out
    for (uint64_t i = 0; i < kInitial - 2; ++i) {
      const int64_t block = ox().mmap_within_space(0, 0, pages(1), 2, 0);
      ASSERT_NE(block, -1) << strerror(errno);
      all.push_back(reinterpret_cast<char*>(block));
    }
    for (char* const block : all) {
      fine(ox().munmap_from_space(0, block, pages(1), 2, 0), 0, "freeing");
    }
    fine(ox().pmem_prefill_scrubbed_freelist_chunk(kAny, 1), kInitial - 33, "prefilling");
    fine(ox().pmem_prefill_scrubbed_freelist(kAny), 0, "prefilling");
    char* const fixed = oxiface::reserve_tracked(2);
    for (uint64_t round = 0; round < static_cast<uint64_t>(rounds); ++round) {
      fine(ox().pmem_fund_account(kAny, 2, pages(6)), 0, "growing");
      fine(ox().mmap(fixed, pages(2), oxiface::kReadWrite, 2, 0), 0, "allocating at an address");
      oxiface::stamp(fixed, 2, ~round);
      const int64_t block = ox().mmap_within_space(0, 0, pages(3), 2, 0);
      ASSERT_NE(block, -1) << strerror(errno);
      char* const memory = reinterpret_cast<char*>(block);
      oxiface::stamp(memory, 3, round);
      fine(ox().pmem_fund_account(kAny, kPartial | 2, minus_pages(6)), 6, "shrinking");
      ASSERT_TRUE(oxiface::is_stamped(memory, 3, round));
      ASSERT_TRUE(oxiface::is_stamped(fixed, 2, ~round));
      fine(ox().munmap(fixed, pages(2), 2, 0), 0, "freeing at an address");
      fine(ox().munmap_from_space(0, memory, pages(3), 2, 0), 0, "freeing");
      ASSERT_GE(ox().pretouch_committed_pages(4, nullptr), 0);
      ASSERT_EQ(mask_now(), mask) << "pretouching";
    }
    EXPECT_EQ(account_words(2)[6], pages(kInitial));
    EXPECT_EQ(account_words(2)[0], pages(kInitial));
    fine(ox().refresh_free_memory(), static_cast<int64_t>(pages(kInitial)), "refreshing");
  }
};

TEST_P(Storms, NoCallFailsAndHandlersRun) {
  if (kHandlersAreWatched) {
    GTEST_SKIP() << "under a storm the sanitizer itself leaves all signals blocked now and then, also without us";
  }
  const bool is_mounted = GetParam().mount_options != nullptr;
  const HugePagePool pool(GetParam().explicit_pages ? kPool : 0);
  if (GetParam().explicit_pages && (!pool.valid() || HugePagePool::free_pages() < kPool)) {
    GTEST_SKIP() << "the kernel gives no pool of huge pages";
  }
  const TemporaryMount mounted("tmpfs", is_mounted ? GetParam().mount_options : "size=1m");
  if (is_mounted && !mounted.valid()) {
    GTEST_SKIP() << "no tmpfs can be mounted here with " << GetParam().mount_options;
  }
  if (GetParam().transparent && !has_transparent_pages()) {
    GTEST_SKIP() << "transparent huge pages are off on this machine";
  }
  for (int host = 0; host < 5; ++host) {
    SCOPED_TRACE("host " + std::to_string(host));
    expect_well([&](Child&) {
      if (GetParam().named) {
        refuse_unnamed_files();
      }
      hooks().fallocate = [](int mode, off64_t, off64_t) { return mode == 0 ? interrupted_by_then() : 0; };
      hooks().truncate = [](off64_t) { return interrupted_by_then(); };
      const SignalStorm storm(pthread_self());
      live(is_mounted ? mounted.path().c_str() : nullptr, 30);
      EXPECT_GT(handled, 100);
      for (const int signal : SignalStorm::kSignals) {
        EXPECT_GT(handled_of[signal], 0) << strsignal(signal);
      }
    });
  }
}

INSTANTIATE_TEST_SUITE_P(
    Of, Storms,
    testing::Values(Kind{.name = "MemoryFile"}, Kind{.name = "NamedFile", .mount_options = "size=128m", .named = true},
                    Kind{.name = "TouchedPages", .mount_options = "size=128m,huge=advise", .transparent = true},
                    Kind{.name = "HugePages", .explicit_pages = true}),
    [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace oxproc
