#include "timeline.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <iomanip>
#include <numeric>
#include <sstream>

namespace mini {
namespace {

constexpr size_t kMostSamples = 8192;
constexpr int kLeft = 70;
constexpr int kWidth = 860;
constexpr int kChartTop = 70;
constexpr int kChartHeight = 270;
constexpr int kPausesHeight = 14;
constexpr int kMapTop = 410;
constexpr int kMapHeight = 280;
constexpr size_t kColumns = 215;
constexpr size_t kRows = 140;

constexpr const char* kCommitted = "#dbe4ee";
constexpr const char* kCached = "#f2b35d";
constexpr const char* kUsed = "#3b76af";
constexpr const char* kCollection = "#c8443c";
constexpr const char* kColours[] = {"#ffffff", kCommitted, kUsed, "#5a3d8a"};  // by PageState

// A picture of one run: figures above, pages below, one time axis for both.
class Picture {
 public:
  Picture(const std::vector<Sample>& samples, const std::vector<Collection>& collections)
      : _samples(samples), _collections(collections), _end(std::max(samples.back().at * 1.02, 1e-3)) {
    for (const Sample& sample : samples) {
      _most_pages = std::max(_most_pages, std::max(sample.committed_pages, sample.used_pages));
    }
  }

  std::string draw(const std::string& title) {
    _out
        << "<svg xmlns='http://www.w3.org/2000/svg' width='960' height='750' font-family='sans-serif' font-size='12'>\n"
        << "<rect width='960' height='750' fill='#ffffff'/>\n";
    text(kLeft, 24, title, "start", "font-size='16' font-weight='bold'");
    legend(44, {{kUsed, "in use"},
                {kCached, "cached, ready for reuse"},
                {kCommitted, "committed"},
                {kCollection, "pauses for collections"}});
    area(kCommitted, [](const Sample& sample) { return sample.committed_pages; });
    area(kCached, [](const Sample& sample) { return sample.used_pages + sample.cached_pages; });
    area(kUsed, [](const Sample& sample) { return sample.used_pages; });
    for (const Collection& collection : _collections) {
      const double width = std::max(x(collection.began_at + collection.pause_ms / 1000) - x(collection.began_at), 0.7);
      rectangle(x(collection.began_at), kChartTop + kChartHeight, width, kPausesHeight, kCollection);
    }
    axes();
    legend(kMapTop - 22, {{kColours[2], "small objects"},
                          {kColours[3], "large objects"},
                          {kColours[1], "committed, not in use"},
                          {kColours[0], "not committed, or given back"}});
    pages();
    _out << "</svg>\n";
    return _out.str();
  }

 private:
  double x(double seconds) const { return kLeft + seconds / _end * kWidth; }
  double y(uint64_t pages) const {
    return kChartTop + kChartHeight - static_cast<double>(pages) / static_cast<double>(_most_pages) * kChartHeight;
  }

  void text(double x, double y, const std::string& words, const char* anchor, const char* style = "") {
    _out << "<text x='" << x << "' y='" << y << "' text-anchor='" << anchor << "' " << style << ">" << words
         << "</text>\n";
  }
  void rectangle(double x, double y, double width, double height, const char* colour, const char* style = "") {
    _out << "<rect x='" << x << "' y='" << y << "' width='" << width << "' height='" << height << "' fill='" << colour
         << "'" << style << "/>\n";
  }

  void legend(double y, const std::vector<std::pair<const char*, std::string>>& entries) {
    double x = kLeft;
    for (const auto& [colour, name] : entries) {
      rectangle(x, y, 12, 12, colour, " stroke='#888888'");
      text(x + 17, y + 10, name, "start");
      x += 45 + 6.5 * static_cast<double>(name.size());
    }
  }

  // What a sample tells holds until the next one.
  template <typename Value>
  void area(const char* colour, Value value) {
    _out << "<path fill='" << colour << "' d='M" << x(0) << " " << y(0);
    for (const Sample& sample : _samples) {
      _out << " H" << x(sample.at) << " V" << y(value(sample));
    }
    _out << " H" << x(_end) << " V" << y(0) << " Z'/>\n";
  }

  void axes() {
    const double mib = static_cast<double>(mib_of(_most_pages));
    for (double at = 0; at <= mib; at += round_step(mib)) {
      text(kLeft - 8, y(static_cast<uint64_t>(at / 2)) + 4, in_words(at) + " MiB", "end");
    }
    for (double at = 0; at <= _end; at += round_step(_end)) {
      text(x(at), kMapTop + kMapHeight + 18, in_words(at) + " s", "middle");
    }
    text(kLeft + kWidth / 2.0, kMapTop + kMapHeight + 40, "time", "middle");
  }

  // A step of 1, 2 or 5 times a power of ten, of which three to eight fit.
  static double round_step(double length) {
    const double power = std::pow(10, std::floor(std::log10(length / 3)));
    return length / power >= 15 ? 5 * power : length / power >= 6 ? 2 * power : power;
  }

  static std::string in_words(double value) {
    std::ostringstream words;
    words << std::setprecision(4) << value;
    return words.str();
  }

  // A column for each moment, a row for each page that was ever committed (or for as many as have to share one: the most
  // frequent state counts).
  void pages() {
    const std::vector<size_t> shown = ever_committed();
    const size_t rows = std::min(shown.size(), kRows);
    const double width = static_cast<double>(kWidth) / kColumns;
    const double height = static_cast<double>(kMapHeight) / static_cast<double>(rows);
    for (size_t column = 0; column < kColumns; ++column) {
      const std::vector<PageState>& pages = sample_at(_end * static_cast<double>(column + 1) / kColumns).pages;
      const auto state_of = [&](size_t row) {
        return most_frequent(pages, shown, row * shown.size() / rows, (row + 1) * shown.size() / rows);
      };
      for (size_t row = 0, next = 0; row < rows; row = next) {
        for (next = row + 1; next < rows && state_of(next) == state_of(row);) {
          ++next;
        }
        rectangle(kLeft + static_cast<double>(column) * width, kMapTop + static_cast<double>(row) * height, width + 0.2,
                  static_cast<double>(next - row) * height, kColours[static_cast<size_t>(state_of(row))]);
      }
    }
    text(kLeft - 8, kMapTop + 10, "page " + std::to_string(shown.front()), "end");
    text(kLeft - 8, kMapTop + kMapHeight, "page " + std::to_string(shown.back()), "end");
    _out << "<rect x='" << kLeft << "' y='" << kMapTop << "' width='" << kWidth << "' height='" << kMapHeight
         << "' fill='none' stroke='#888888'/>\n";
  }

  std::vector<size_t> ever_committed() const {
    std::vector<size_t> result;
    for (size_t page = 0; page < _samples.back().pages.size(); ++page) {
      if (std::any_of(_samples.begin(), _samples.end(),
                      [page](const Sample& sample) { return sample.pages[page] != PageState::kNotCommitted; })) {
        result.push_back(page);
      }
    }
    return result;
  }

  const Sample& sample_at(double seconds) const {
    const auto after = std::upper_bound(_samples.begin(), _samples.end(), seconds,
                                        [](double at, const Sample& sample) { return at < sample.at; });
    return after == _samples.begin() ? *after : *(after - 1);
  }

  static PageState most_frequent(const std::vector<PageState>& pages, const std::vector<size_t>& shown, size_t first,
                                 size_t end) {
    std::array<size_t, std::size(kColours)> counts{};
    for (size_t i = first; i < end; ++i) {
      ++counts[static_cast<size_t>(pages[shown[i]])];
    }
    return static_cast<PageState>(std::max_element(counts.begin(), counts.end()) - counts.begin());
  }

  const std::vector<Sample>& _samples;
  const std::vector<Collection>& _collections;
  const double _end;
  uint64_t _most_pages = 1;
  std::ostringstream _out;
};

}  // namespace

double Timeline::now() const {
  return std::chrono::duration<double>(Clock::now() - _start).count();
}

bool Timeline::is_due() {
  const std::lock_guard lock(_mutex);
  if (now() < _next_sample) {
    return false;
  }
  _next_sample = now() + _between_samples;
  return true;
}

// Threads may come here in another order than that in which they looked.
void Timeline::add(Sample sample) {
  const std::lock_guard lock(_mutex);
  const auto place = std::upper_bound(_samples.begin(), _samples.end(), sample.at,
                                      [](double at, const Sample& other) { return at < other.at; });
  _samples.insert(place, std::move(sample));
  if (_samples.size() > kMostSamples) {  // a long run is seen from farther away
    _between_samples *= 2;
    bool odd = false;
    std::erase_if(_samples, [&odd](const Sample&) { return odd = !odd; });
  }
}

void Timeline::add(const Collection& collection) {
  const std::lock_guard lock(_mutex);
  _collections.push_back(collection);
}

double Timeline::longest_pause_ms() const {
  const std::lock_guard lock(_mutex);
  return std::accumulate(
      _collections.begin(), _collections.end(), 0.0,
      [](double longest, const Collection& collection) { return std::max(longest, collection.pause_ms); });
}

void Timeline::write_svg(const std::string& path, const std::string& title) const {
  const std::lock_guard lock(_mutex);
  std::ofstream file(path);
  file << Picture(_samples, _collections).draw(title) << std::flush;
  if (!file) {
    fail("writing " + path);
  }
}

}  // namespace mini
