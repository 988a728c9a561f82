#include "DemoReport.hpp"

#include "ProgressBar.hpp"

#include <QStringList>

#include <algorithm>
#include <cstddef>

namespace Plexa
{
  namespace Cli
  {
    double DemoReport::median(std::vector<double> values)
    {
      if (values.empty())
        return 0;
      const auto middle = std::ptrdiff_t(values.size() / 2);
      std::nth_element(values.begin(), values.begin() + middle, values.end());
      const double upper = values[size_t(middle)];
      if (values.size() % 2 == 1)
        return upper;
      const double lower = *std::max_element(values.begin(), values.begin() + middle);
      return (lower + upper) / 2;
    }

    QString DemoReport::table() const
    {
      const double perSecond = animationSeconds > 0 ? double(valuesApplied) / animationSeconds : 0.0;
      const QString roundTrip =
          roundTripsMs.empty()
              ? QString("none measured")
              : QString("%1 ms (%2 samples)").arg(median(roundTripsMs), 0, 'f', 2).arg(roundTripsMs.size());
      const QString sliced = slicedEventIntact
                                 ? QString("%1 bytes in %2 slices, intact").arg(slicedEventBytes).arg(slices)
                                 : QString("did not arrive intact");
      const std::vector<std::pair<QString, QString>> rows = {
          {"attributes mirrored", QString::number(attributesMirrored)},
          {"values applied per second", QString::number(qRound64(perSecond))},
          {"median round trip", roundTrip},
          {"bytes on the wire", QString("%1 (server to client %2, client to server %3)")
                                    .arg(ProgressBar::formatBytes(int64_t(serverToClientBytes + clientToServerBytes)),
                                         ProgressBar::formatBytes(int64_t(serverToClientBytes)),
                                         ProgressBar::formatBytes(int64_t(clientToServerBytes)))},
          {"sliced event", sliced},
          {"files verified", QString("%1 of %2").arg(filesVerified).arg(files)},
          {"trees identical", treesIdentical ? "yes" : "no"},
      };
      QStringList lines;
      for (const auto& [name, value] : rows)
        lines << "  " + name.leftJustified(27) + value;
      return lines.join('\n');
    }
  }
}
