// The calls that make none of the system, and that no exported call was forgotten.

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "world.hpp"

namespace oxtest::faults {
namespace {

char* block = nullptr;
char* fixed = nullptr;

Step quiet(const std::string& name, std::function<int64_t()> call, int64_t answer = 0) {
  Step step{name, std::move(call)};
  step.verify = answers(answer);
  step.reaches_the_system = false;
  return step;
}

Step stub(const std::string& name, std::function<int64_t()> call) {
  Step step = quiet(name, std::move(call));
  step.verify = refused_with(EINVAL);
  return step;
}

TEST(QuietCalls, AnswerFromWhatIsKnown) {
  const auto prepare = [] {
    start({.initial_pages = 4, .maximum_pages = 16, .fund_pages = 8});
    add_zone(0, 6, 8, true);
    add_alias(add_space(16, 0, 0, 0), 16);
    block = allocate(0, 2);
    fixed = reserve(1, 0);
    require(ox_mmap_pliv(fixed, kPage, kReadWrite, 2, 0) == 0, "a fixed address");
  };
  const auto number = [](const char* place) { return reinterpret_cast<intptr_t>(place); };
  const auto physical = [] {
    ox_pliv_pmem_stats_t stats;
    return ox_get_stats_for_pmem_pliv(&stats);
  };
  const auto fund = [] {
    uint64_t words[27];
    return ox_pmem_get_fund_stats_pliv(words, sizeof words);
  };
  const auto version = [] {
    char text[30];
    uint64_t length = 0;
    return ox_qrv_version_pliv(text, &length) == 0 ? static_cast<int64_t>(length) : -1;
  };
  Step internal = quiet("internal usage", [] { return ox_get_internal_usage_pliv(); });
  internal.verify = [](int64_t bytes, int) { return bytes > 0 ? "" : "must be some"; };
  Step descriptor = quiet("descriptor", [] { return ox_pmem_backing_storage_fd_pliv(); });
  descriptor.verify = [](int64_t fd, int) { return fd >= 0 ? "" : "must be open"; };
  run({"quiet calls",
       prepare,
       {quiet("allowed zone", [] { return ox_register_pzone_for_space_pliv(0, 0); }),
        quiet("zone of an address",
              [=] { return ox_get_pzone_for_addr_within_space_pliv(0, static_cast<uint64_t>(number(block))); }),
        quiet("place in the file", [=] { return ox_get_backing_storage_offset_pliv(0, number(block)); }),
        quiet(
            "place of a fixed address", [=] { return ox_get_backing_storage_offset_pliv(-1, number(fixed)); },
            2 * kPage),
        quiet(
            "funded", [] { return ox_pmem_is_funded_pliv(0); }, 1),
        quiet("not funded", [] { return ox_pmem_is_funded_pliv(5 * kPage); }),
        quiet("statistics of physical memory", physical), quiet("statistics of the fund", fund),
        quiet(
            "mapped", [] { return ox_get_total_mapped_size_pliv(); }, 3 * kPage),
        quiet("populated", [] { return ox_get_total_populated_size_pliv(); }), internal, descriptor,
        quiet("transparent", [] { return ox_pmem_using_transparent_huge_pages_pliv(); }),
        quiet("explicit", [] { return ox_pmem_using_explicit_huge_pages_pliv(); }),
        quiet("container", [] { return ox_is_running_on_container_pliv(); }),
        quiet(
            "version of the interface", [] { return ox_wbd_api_version_pliv(); }, 140),
        quiet("version", version, 12)}});
}

TEST(QuietCalls, UnsupportedOperations) {
  const auto prepare = [] {
    start({.initial_pages = 4, .maximum_pages = 16, .fund_pages = 8});
    add_zone(0, 6, 8, true);
  };
  run({"unsupported operations",
       prepare,
       {stub("mremap", [] { return ox_mremap_pliv(); }),
        stub("mbatch_remap", [] { return ox_mbatch_remap_pliv(); }),
        stub("mbatch_protect", [] { return ox_mbatch_protect_pliv(); }),
        stub("mbatch_start", [] { return ox_mbatch_start_pliv(); }),
        stub("mbatch_commit", [] { return ox_mbatch_commit_pliv(); }),
        stub("mbatch_abort", [] { return ox_mbatch_abort_pliv(); }),
        stub("tlb_invalidate", [] { return ox_tlb_invalidate_pliv(); }),
        stub("munshatter", [] { return ox_munshatter_pliv(); }),
        stub("mprobe", [] { return ox_mprobe_pliv(0, 0, 0, 0); }),
        stub("mprobe2", [] { return ox_mprobe2_pliv(0, 0, 0, 0, 0); }),
        stub("probe_segv", [] { return ox_probe_segv_pliv(); }),
        stub("set_maximum", [] { return ox_pmem_set_maximum_pliv(); }),
        stub("prezero_stats", [] { return ox_pmem_get_prezero_stats_pliv(); }),
        stub("prezero", [] { return ox_pmem_prezero_pliv(); }),
        stub("subsys_initialized", [] { return ox_pmem_subsys_initialized_pliv(); }),
        stub("is_coredumping", [] { return ox_qrv_is_coredumping_pliv(); }),
        stub("select_partition", [] { return int64_t{ox_select_partition_pliv()}; }),
        stub("set_lock_flag", [] { return int64_t{ox_set_lock_flag_pliv()}; }),
        stub("get_elastic", [] { return int64_t{ox_get_elastic_pliv()}; }),
        stub("rcontrol", [] { return int64_t{ox_pmem_get_rcontrol_pliv()}; }),
        quiet("account_funds", [] { return ox_pmem_set_account_funds_pliv(); })}});
}

std::string text_of(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Each is a step somewhere, or one of the callbacks that the driver sets.
TEST(QuietCalls, NoExportedCallIsForgotten) {
  const std::filesystem::path source = OXPLIV_SOURCE;
  std::string scenarios;
  for (const auto& file : std::filesystem::directory_iterator(source / "tests/faults")) {
    scenarios += text_of(file.path());
  }
  constexpr const char* kEndOfName = "_pliv(";
  const std::string header = text_of(source / "src/oxpliv/ox_memory_pliv.h");
  int calls = 0;
  for (size_t end = header.find(kEndOfName); end != std::string::npos;
       end = header.find(kEndOfName, end + 1), ++calls) {
    size_t start = end;
    while (std::isalnum(static_cast<unsigned char>(header[start - 1])) != 0 || header[start - 1] == '_') {
      --start;
    }
    const std::string call = header.substr(start, end - start) + kEndOfName;
    EXPECT_NE(scenarios.find(call), std::string::npos) << call;
  }
  EXPECT_GT(calls, 60);
}

}  // namespace
}  // namespace oxtest::faults
