#pragma once

#include <QObject>

#include <array>

// A Qt Remote Objects source for EndToEndBench: 100 float properties p00..p99, each with a setter
// and a notify signal, as a hand-written class would declare them. moc expands the macros below.
#define PLEXA_BENCH_FLOAT_PROPERTY(n)                                                                                  \
  Q_PROPERTY(float p##n READ p##n WRITE setP##n NOTIFY p##n##Changed)                                                  \
public:                                                                                                                \
  float p##n() const                                                                                                   \
  {                                                                                                                    \
    return m_values[1##n - 100];                                                                                       \
  }                                                                                                                    \
  void setP##n(float v)                                                                                                \
  {                                                                                                                    \
    if (m_values[1##n - 100] != v) {                                                                                   \
      m_values[1##n - 100] = v;                                                                                        \
      Q_EMIT p##n##Changed(v);                                                                                         \
    }                                                                                                                  \
  }                                                                                                                    \
  Q_SIGNAL void p##n##Changed(float value);

// The property lists read best as written, and the formatter reflows them anew on each pass.
// clang-format off
#define PLEXA_BENCH_TEN_PROPERTIES(d)                                                                         \
  PLEXA_BENCH_FLOAT_PROPERTY(d##0) PLEXA_BENCH_FLOAT_PROPERTY(d##1) PLEXA_BENCH_FLOAT_PROPERTY(d##2)            \
  PLEXA_BENCH_FLOAT_PROPERTY(d##3) PLEXA_BENCH_FLOAT_PROPERTY(d##4) PLEXA_BENCH_FLOAT_PROPERTY(d##5)            \
  PLEXA_BENCH_FLOAT_PROPERTY(d##6) PLEXA_BENCH_FLOAT_PROPERTY(d##7) PLEXA_BENCH_FLOAT_PROPERTY(d##8)            \
  PLEXA_BENCH_FLOAT_PROPERTY(d##9)

#define PLEXA_BENCH_SETTER(n) &PropertyBlock::setP##n,
#define PLEXA_BENCH_TEN_SETTERS(d)                                                                            \
  PLEXA_BENCH_SETTER(d##0) PLEXA_BENCH_SETTER(d##1) PLEXA_BENCH_SETTER(d##2) PLEXA_BENCH_SETTER(d##3)             \
  PLEXA_BENCH_SETTER(d##4) PLEXA_BENCH_SETTER(d##5) PLEXA_BENCH_SETTER(d##6) PLEXA_BENCH_SETTER(d##7)             \
  PLEXA_BENCH_SETTER(d##8) PLEXA_BENCH_SETTER(d##9)
// clang-format on

/// One source object of 100 float properties (all 0 at first). `setValue` reaches property `i`
/// through its own setter, so a change emits exactly the notify signal Qt Remote Objects listens to.
class PropertyBlock : public QObject
{
  Q_OBJECT
  PLEXA_BENCH_TEN_PROPERTIES(0)
  PLEXA_BENCH_TEN_PROPERTIES(1)
  PLEXA_BENCH_TEN_PROPERTIES(2)
  PLEXA_BENCH_TEN_PROPERTIES(3)
  PLEXA_BENCH_TEN_PROPERTIES(4)
  PLEXA_BENCH_TEN_PROPERTIES(5)
  PLEXA_BENCH_TEN_PROPERTIES(6)
  PLEXA_BENCH_TEN_PROPERTIES(7)
  PLEXA_BENCH_TEN_PROPERTIES(8)
  PLEXA_BENCH_TEN_PROPERTIES(9)

public:
  static constexpr int Size = 100;

  explicit PropertyBlock(QObject* parent = nullptr)
      : QObject(parent)
  {
    m_values.fill(0.0f);
  }

  /// Sets property `i` (0..99) through its setter.
  void setValue(int i, float v)
  {
    using Setter = void (PropertyBlock::*)(float);
    static const Setter setters[Size] = {
        PLEXA_BENCH_TEN_SETTERS(0) PLEXA_BENCH_TEN_SETTERS(1) PLEXA_BENCH_TEN_SETTERS(2) PLEXA_BENCH_TEN_SETTERS(3)
            PLEXA_BENCH_TEN_SETTERS(4) PLEXA_BENCH_TEN_SETTERS(5) PLEXA_BENCH_TEN_SETTERS(6) PLEXA_BENCH_TEN_SETTERS(7)
                PLEXA_BENCH_TEN_SETTERS(8) PLEXA_BENCH_TEN_SETTERS(9)};
    (this->*setters[i])(v);
  }
  float value(int i) const { return m_values[size_t(i)]; }

private:
  std::array<float, Size> m_values;
};
