#include "bastion/FunctionTask.hpp"

#include <utility>

namespace Bastion
{
  FunctionTask::FunctionTask(std::function<void()> function, double priority)
      : Task(priority)
      , m_function(std::move(function))
  {
  }

  void FunctionTask::doTask()
  {
    // Steps never overlap, and the function runs once: release what it captured right after.
    std::function<void()> function;
    function.swap(m_function);
    if (function)
      function();
    setFinished();
  }
}
