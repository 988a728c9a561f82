// Cost of encoding and decoding value-update records, against a memcpy of the same bytes.
//
// Two record shapes, one million records each: a 32-bit symbol plus a float, and a symbol plus a
// 16-byte string. Each is written and read
//   - raw: straight through BundleWriterCore / BundleReaderCore,
//   - registry: through the serializers and deserializers the type registry makes for real
//     attributes (1000 of them, as a session would hold), the symbol picking the attribute.
// Two baselines run in the same process: one memcpy of the very bytes the writer produced, and a
// loop copying each record's fields with memcpy into a presized buffer. Every figure is the best of
// several runs (PLEXA_BENCH_RUNS, at least 7), in CPU time of the thread; the raw write of strings
// against the field-by-field copy goes to the targets table as the median of the runs. Targets: raw
// within 3x of memcpy, registry within 10x.
//
// Usage: CodecBench [records]   (default 1000000)

#include "BenchReport.hpp"

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/types/CarafeAttributes.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <time.h>
#include <vector>

namespace
{
  constexpr int Attributes = 1000;

  double threadNanos()
  {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
  }

  // CPU time of this thread rather than wall time: the machine is shared with builds and tests, and
  // time spent preempted says nothing about the codec.
  BenchReport::Stats timeRuns(const std::function<void()>& body)
  {
    std::vector<double> nanos;
    for (int run = 0; run < std::max(7, BenchReport::runs()); ++run) {
      const double start = threadNanos();
      body();
      nanos.push_back(threadNanos() - start);
    }
    return BenchReport::stats(nanos);
  }

  double bestNanos(const std::function<void()>& body)
  {
    return timeRuns(body).min;
  }

  volatile uint64_t sink;

  /// The output buffer of the write benchmarks, reused across runs as a sender reuses its bundle
  /// buffer: the first run grows it, so the best run does not count the page faults of fresh memory.
  QByteArray& reusedOutput()
  {
    // A reserved array keeps its block when resized to 0.
    static QByteArray out = [] {
      QByteArray a;
      a.reserve(64);
      return a;
    }();
    out.resize(0);
    return out;
  }

  const QString& stringFor(int i)
  {
    static const std::vector<QString> texts = [] {
      std::vector<QString> t;
      for (int k = 0; k < 64; ++k)
        t.push_back(QString::asprintf("value-%010d", k * 7919)); // 16 bytes of UTF-8
      return t;
    }();
    return texts[size_t(i) % texts.size()];
  }

  /// The two baselines: one memcpy of all the encoded bytes, and a loop that copies each record's
  /// fields with memcpy into a presized buffer (the floor for any encoder that writes field by field).
  struct Baselines
  {
    double bulk;
    double perField;
  };

  void printHeader()
  {
    std::printf("  %-28s %13s  %12s  %14s  %s\n", "", "ns/record", "x bulk copy", "x field copy", "target");
  }

  void printRow(const char* name, double nanos, const Baselines& base, double target, int records)
  {
    const double bulk = nanos / base.bulk;
    const double field = nanos / base.perField;
    std::printf("  %-28s %13.2f  %11.2fx  %13.2fx  %4.1fx: %s\n", name, nanos / records, bulk, field, target,
                target == 0       ? "-"
                : field <= target ? (bulk <= target ? "met" : "met against field copy only")
                                  : "MISSED");
  }

  template <typename A>
  struct Session
  {
    std::vector<std::unique_ptr<A>> attributes;
    std::vector<Plexa::Serializer> serializers;
    std::vector<Plexa::Deserializer> deserializers;

    explicit Session(const Plexa::TypeRegistry& registry, uint32_t typeId)
    {
      for (int i = 0; i < Attributes; ++i) {
        attributes.emplace_back(new A());
        uint32_t id = 0, size = 0;
        serializers.push_back(registry.createSerializer(attributes.back().get(), id, size));
        deserializers.push_back(registry.createDeserializer(typeId, attributes.back().get()));
        if (!serializers.back() || !deserializers.back() || id != typeId) {
          std::fprintf(stderr, "no codec for type %u\n", typeId);
          std::exit(1);
        }
      }
    }
  };

  /// One record shape: `encode(writer, i)` writes record i raw, `decode(reader)` reads one raw,
  /// `copyFields(out, i)` copies record i's fields with memcpy and returns the bytes used, `sample(i)`
  /// is attribute i's value for the registry's writes, `expected(i)` the value record i carries.
  /// With `reportedRow`, the raw write goes to the targets table.
  template <typename A, typename Encode, typename Decode, typename CopyFields, typename Sample, typename Expected>
  bool runRecords(const char* title, const Plexa::TypeRegistry& registry, uint32_t typeId, int records, Encode encode,
                  Decode decode, CopyFields copyFields, Sample sample, Expected expected, bool reportedRow)
  {
    std::printf("%s (%d records)\n", title, records);
    QByteArray encoded;
    {
      Plexa::BundleWriterCore writer(encoded);
      for (int i = 0; i < records; ++i)
        encode(writer, i);
    }
    std::vector<char> copy(size_t(encoded.size()));
    Baselines base;
    base.bulk = bestNanos([&] {
      std::memcpy(copy.data(), encoded.constData(), copy.size());
      sink = uint64_t(copy[copy.size() / 2]);
    });
    const BenchReport::Stats fieldRuns = timeRuns([&] {
      char* out = copy.data();
      for (int i = 0; i < records; ++i)
        out += copyFields(out, i);
      sink = uint64_t(copy[copy.size() / 2]);
    });
    base.perField = fieldRuns.min;

    const BenchReport::Stats rawWriteRuns = timeRuns([&] {
      QByteArray& out = reusedOutput();
      Plexa::BundleWriterCore writer(out);
      for (int i = 0; i < records; ++i)
        encode(writer, i);
      sink = uint64_t(out.size());
    });
    const double rawWrite = rawWriteRuns.min;
    if (reportedRow) {
      const double ratio = rawWriteRuns.median / fieldRuns.median;
      BenchReport::Row row;
      row.what = std::string("raw write, ") + title + ", ns";
      row.figure = BenchReport::number(rawWriteRuns.median / records, "%.2f");
      row.baselineName = "field memcpy";
      row.baseline = BenchReport::number(fieldRuns.median / records, "%.2f");
      row.ratio = BenchReport::number(ratio, "%.2fx");
      row.target = "<= 3x field memcpy";
      row.met = ratio <= 3;
      row.spread = "write " + BenchReport::spread(BenchReport::scaled(rawWriteRuns, 1.0 / records), "%.2f");
      BenchReport::add(row);
    }
    const double rawRead = bestNanos([&] {
      Plexa::BundleReaderCore reader(encoded, 0);
      uint64_t total = 0;
      for (int i = 0; i < records; ++i)
        total += decode(reader);
      sink = total;
    });

    Session<A> session(registry, typeId);
    for (int i = 0; i < Attributes; ++i)
      session.attributes[size_t(i)]->setValue(sample(i));
    const double registryWrite = bestNanos([&] {
      QByteArray& out = reusedOutput();
      Plexa::BundleWriterCore writer(out);
      for (int i = 0; i < records; ++i) {
        const uint32_t symbol = uint32_t(i % Attributes);
        writer.writeValue(symbol);
        session.serializers[symbol](writer);
      }
      sink = uint64_t(out.size());
    });
    const double registryRead = bestNanos([&] {
      Plexa::BundleReaderCore reader(encoded, 0);
      for (int i = 0; i < records; ++i) {
        const uint32_t symbol = reader.readValue<uint32_t>();
        session.deserializers[symbol](reader);
      }
    });

    printHeader();
    printRow("memcpy, all bytes at once", base.bulk, base, 0, records);
    printRow("memcpy, field by field", base.perField, base, 0, records);
    printRow("raw write", rawWrite, base, 3, records);
    printRow("raw read", rawRead, base, 3, records);
    printRow("registry write", registryWrite, base, 10, records);
    printRow("registry read (attributes)", registryRead, base, 10, records);
    // The decoded values must be the encoded ones.
    return session.attributes[size_t((records - 1) % Attributes)]->value() == expected(records - 1);
  }

  bool runFloatRecords(const Plexa::TypeRegistry& registry, int records)
  {
    return runRecords<Carafe::AttributeT<float>>(
        "symbol + float", registry, 3, records,
        [](Plexa::BundleWriterCore& writer, int i) {
          writer.writeValue(uint32_t(i % Attributes));
          writer.writeValue(float(i) * 0.5f);
        },
        [](Plexa::BundleReaderCore& reader) {
          const uint32_t symbol = reader.readValue<uint32_t>();
          return symbol + uint64_t(reader.readValue<float>());
        },
        [](char* out, int i) {
          const uint32_t symbol = uint32_t(i % Attributes);
          const float value = float(i) * 0.5f;
          std::memcpy(out, &symbol, 4);
          std::memcpy(out + 4, &value, 4);
          return 8;
        },
        [](int i) { return float(i); }, [](int i) { return float(i) * 0.5f; }, false);
  }

  bool runStringRecords(const Plexa::TypeRegistry& registry, int records)
  {
    // Raw: the text is already UTF-8 (a sender keeps it so); the reader takes the bytes into one
    // reused array, so neither side allocates per record. The registry converts from and to QString.
    std::vector<QByteArray> texts;
    for (int k = 0; k < 64; ++k)
      texts.push_back(stringFor(k).toUtf8());
    QByteArray text;
    return runRecords<Carafe::AttributeT<QString>>(
        "symbol + 16-byte string", registry, 35, records,
        [&](Plexa::BundleWriterCore& writer, int i) {
          writer.writeValue(uint32_t(i % Attributes));
          writer.writeBinary(texts[size_t(i) % texts.size()]);
        },
        [&](Plexa::BundleReaderCore& reader) {
          const uint32_t symbol = reader.readValue<uint32_t>();
          reader.readBinary(text, 64);
          return symbol + uint64_t(text.size());
        },
        [&](char* out, int i) {
          const uint32_t symbol = uint32_t(i % Attributes);
          const QByteArray& bytes = texts[size_t(i) % texts.size()];
          const uint32_t count = uint32_t(bytes.size());
          std::memcpy(out, &symbol, 4);
          std::memcpy(out + 4, &count, 4);
          std::memcpy(out + 8, bytes.constData(), count);
          return int(8 + ((count + 3) & ~3u));
        },
        [](int i) { return stringFor(i); }, [](int i) { return stringFor(i); }, true);
  }
}

int main(int argc, char** argv)
{
  const int records = argc > 1 ? std::atoi(argv[1]) : 1000000;
  if (records < Attributes) {
    std::fprintf(stderr, "need at least %d records\n", Attributes);
    return 2;
  }
  const Plexa::TypeRegistry registry;
  const bool floatsOk = runFloatRecords(registry, records);
  const bool stringsOk = runStringRecords(registry, records);
  if (!floatsOk || !stringsOk) {
    std::fprintf(stderr, "decoded values differ from the encoded ones\n");
    return 1;
  }
  return 0;
}
