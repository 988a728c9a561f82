#pragma once

// The rows of the closing table of `./run bench`: each benchmark program that measures a target
// appends one tab-separated line per target to the file named by PLEXA_BENCH_ROWS (nothing when
// it is unset), and the script prints them as one table and writes them as JSON. Timed figures
// are medians of several runs (PLEXA_BENCH_RUNS, at least 5) with their spread.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace BenchReport
{
  /// Runs of each timed figure: PLEXA_BENCH_RUNS, never fewer than 5.
  inline int runs()
  {
    const char* text = std::getenv("PLEXA_BENCH_RUNS");
    return std::max(5, text ? std::atoi(text) : 5);
  }

  struct Stats
  {
    double median = NAN;
    double min = NAN;
    double max = NAN;
    int runs = 0;
  };

  /// Median, smallest and largest of the values that are numbers (failed runs are NaN).
  inline Stats stats(std::vector<double> values)
  {
    values.erase(std::remove_if(values.begin(), values.end(), [](double v) { return std::isnan(v); }), values.end());
    Stats s;
    s.runs = int(values.size());
    if (values.empty())
      return s;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    s.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    s.min = values.front();
    s.max = values.back();
    return s;
  }

  /// The same figures in another unit (seconds as milliseconds, a total per item...).
  inline Stats scaled(Stats s, double factor)
  {
    s.median *= factor;
    s.min *= factor;
    s.max *= factor;
    return s;
  }

  /// "5 runs 410.2..460.9" with `format` for the numbers; "-" for a figure that is not timed.
  inline std::string spread(const Stats& s, const char* format)
  {
    if (s.runs == 0)
      return "-";
    char low[32];
    char high[32];
    std::snprintf(low, sizeof(low), format, s.min);
    std::snprintf(high, sizeof(high), format, s.max);
    return std::to_string(s.runs) + " runs " + low + ".." + high;
  }

  inline std::string number(double v, const char* format)
  {
    if (std::isnan(v))
      return "-";
    char text[32];
    std::snprintf(text, sizeof(text), format, v);
    return text;
  }

  /// One target: what is measured, the figure and its unit, the baseline of the same run (name
  /// and figure), the ratio as the target states it, the target, whether it is met, the spread.
  struct Row
  {
    std::string what;
    std::string figure;
    std::string baselineName;
    std::string baseline;
    std::string ratio;
    std::string target;
    bool met = false;
    std::string spread;
  };

  /// The first three fields of /proc/loadavg ("1.20 0.95 0.80"): on a shared machine, what a
  /// figure was measured beside.
  inline std::string loadAverage()
  {
    char text[64] = "?";
    if (FILE* file = std::fopen("/proc/loadavg", "r")) {
      float a = 0, b = 0, c = 0;
      if (std::fscanf(file, "%f %f %f", &a, &b, &c) == 3)
        std::snprintf(text, sizeof(text), "%.2f %.2f %.2f", a, b, c);
      std::fclose(file);
    }
    return text;
  }

  /// Appends `row` to PLEXA_BENCH_ROWS; tabs and newlines in the texts become blanks.
  inline void add(const Row& row)
  {
    const char* path = std::getenv("PLEXA_BENCH_ROWS");
    if (!path || !*path)
      return;
    FILE* file = std::fopen(path, "a");
    if (!file)
      return;
    const auto clean = [](std::string s) {
      std::replace_if(
          s.begin(), s.end(), [](char c) { return c == '\t' || c == '\n'; }, ' ');
      return s.empty() ? std::string("-") : s;
    };
    std::fprintf(file, "%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n", clean(row.what).c_str(), clean(row.figure).c_str(),
                 clean(row.baselineName).c_str(), clean(row.baseline).c_str(), clean(row.ratio).c_str(),
                 clean(row.target).c_str(), row.met ? "met" : "missed", clean(row.spread).c_str());
    std::fclose(file);
  }
}
