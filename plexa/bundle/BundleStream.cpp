#include "plexa/bundle/BundleStream.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"
#include "plexa/net/ConnectionThread.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Plexa
{
  namespace
  {
    const QString BlockPrefix = QStringLiteral("plexa2 ");

    /// Room reserved for the list up front: a count is only a claim, so the list grows with the
    /// bundles that actually arrive.
    constexpr int MaxReservedBundles = 1024;

    /// Reads one bundle (header, then payload in chunks). Logs and returns false on failure.
    bool readBundle(BundleByteSource& source, Bundle& bundle)
    {
      BundleHeader header;
      if (!source.readData(reinterpret_cast<unsigned char*>(&header), Bundle::HeaderSize)) {
        Bastion::warning("processPlexa2 # Failed to read Bundle header");
        return false;
      }
      const qint64 total = qint64(Bundle::HeaderSize) + qint64(header.payloadSize);
      if (total > MaxBundleBytes) {
        // Cannot be held in one array; the rest of the stream cannot be skipped reliably either.
        Bastion::warning("processPlexa2 # Failed to read Bundle");
        source.abort();
        return false;
      }
      QByteArray& data = bundle.data();
      data = QByteArray(reinterpret_cast<const char*>(&header), Bundle::HeaderSize);
      while (data.size() < total) {
        const int at = data.size();
        const int chunk = int(std::min<qint64>(total - at, BundleReadChunkBytes));
        data.resize(at + chunk);
        if (!source.readData(reinterpret_cast<unsigned char*>(data.data()) + at, chunk)) {
          Bastion::warning("processPlexa2 # Failed to read Bundle");
          return false;
        }
      }
      return true;
    }

    /// The connection thread as a byte source. Its failed reads end the connection themselves;
    /// `abort` ends it the same way for a size that cannot be read at all: "write-error" clears the
    /// running flag and closes the socket, so the line loop ends and the writer stops.
    class ConnectionSource : public BundleByteSource
    {
    public:
      explicit ConnectionSource(ConnectionThread& connection)
          : m_connection(connection)
      {
      }
      bool readData(unsigned char* buffer, int size) override { return m_connection.readData(buffer, size); }
      void abort() override
      {
        Bastion::BinaryData none;
        m_connection.eventProcess("write-error", none);
      }

    private:
      ConnectionThread& m_connection;
    };
  }

  BundleBlockResult readBundleBlock(const QString& line, BundleByteSource& source, std::vector<Bundle>& bundles)
  {
    bundles.clear();
    if (!line.startsWith(BlockPrefix))
      return BundleBlockResult::NotABlock;
    bool ok = false;
    const int count = line.mid(BlockPrefix.size()).toInt(&ok, 10);
    if (!ok)
      return BundleBlockResult::NotABlock;
    if (count < 0)
      throw std::length_error("processPlexa2 # negative bundle count");

    std::vector<Bundle> block;
    block.reserve(size_t(std::min(count, MaxReservedBundles)));
    for (int i = 0; i < count; ++i) {
      Bundle bundle;
      if (!readBundle(source, bundle))
        return BundleBlockResult::Failed;
      block.push_back(std::move(bundle));
    }
    bundles = std::move(block);
    return BundleBlockResult::Complete;
  }

  bool processPlexa2(const std::shared_ptr<BundleListScheduler>& scheduler, ConnectionThread& connection,
                     const QString& line)
  {
    ConnectionSource source(connection);
    std::vector<Bundle> bundles;
    switch (readBundleBlock(line, source, bundles)) {
    case BundleBlockResult::NotABlock:
      return false;
    case BundleBlockResult::Complete:
      if (scheduler)
        scheduler->scheduleProcess(bundles);
      return true;
    case BundleBlockResult::Failed:
      return true;
    }
    return true;
  }
}
