#pragma once

#include <QString>

#include <cstdint>
#include <vector>

namespace Plexa
{
  namespace Cli
  {
    /// What `plexa demo` measured and checked, and the summary table it ends with.
    struct DemoReport
    {
      /// Attributes (not nodes) in the client's tree at the end.
      int attributesMirrored = 0;
      /// Values the client's tree took from the server while the scene was animated.
      int64_t valuesApplied = 0;
      double animationSeconds = 0;
      /// A change on the server, its echo from the client, back on the server: milliseconds each.
      std::vector<double> roundTripsMs;
      uint64_t serverToClientBytes = 0;
      uint64_t clientToServerBytes = 0;
      int slicedEventBytes = 0;
      int slices = 0;
      bool slicedEventIntact = false;
      int files = 0;
      int filesVerified = 0;
      bool treesIdentical = false;

      /// The median of `values` (the mean of the two middle ones for an even count); 0 if empty.
      static double median(std::vector<double> values);

      /// The run succeeded: both trees ended identical and every file verified.
      bool succeeded() const { return treesIdentical && files > 0 && filesVerified == files; }
      /// The summary table, one line per figure, without a final newline.
      QString table() const;
    };
  }
}
