#include "pmem/pmem_backingStorage.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>
#include <vector>

#include "fixtures.hpp"
#include "storageFixture.hpp"
#include "utils/os.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;
using oxtest::kForever;
using oxtest::kHugetlbfs;
using oxtest::kMeminfo;
using oxtest::kMountinfo;
using oxtest::kPage;
using oxtest::kShmemEnabled;
using oxtest::kThpEnabled;
using oxtest::kTmpfs;
using oxtest::LogCapture;
using oxtest::LogLine;
namespace real = oxtest::real;

constexpr int kMfdCloexec = 1;
constexpr int kMfdHugetlb = 4;
constexpr const char* kBare = "";
constexpr const char* kExplicit = " using explicit huge pages";
constexpr const char* kTransparent = " using transparent huge pages";
constexpr const char* kMadvise = " in madvise mode";

using Lines = std::vector<LogLine>;

}  // namespace
