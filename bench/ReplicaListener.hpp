#pragma once

#include <QObject>
#include <QVariant>

#include <functional>

/// The far side of EndToEndBench's Qt Remote Objects runs: dynamic replicas have no C++ signals to
/// connect a lambda to, so their notify signals are connected to these slots by signature.
class ReplicaListener : public QObject
{
  Q_OBJECT

public:
  /// Runs once, when `countChange` has been called `target` times.
  std::function<void()> onTarget;
  long long target = 0;
  long long count = 0;
  /// The replica whose property `answerProperty` `answer` writes (which Qt Remote Objects forwards
  /// to the source).
  QObject* answerReplica = nullptr;
  const char* answerProperty = "p01";

public Q_SLOTS:
  void countChange()
  {
    if (++count == target && onTarget)
      onTarget();
  }
  void answer(float value) { answerReplica->setProperty(answerProperty, QVariant(value)); }
};
