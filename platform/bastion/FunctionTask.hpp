#pragma once

#include "bastion/Task.hpp"

#include <functional>

namespace Bastion
{
  /// A one-shot task: its single step calls the function and finishes the task.
  class FunctionTask : public Task
  {
  public:
    explicit FunctionTask(std::function<void()> function, double priority = 1.0);

    void doTask() override;

  private:
    std::function<void()> m_function;
  };
}
