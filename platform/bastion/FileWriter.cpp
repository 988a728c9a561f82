#include "bastion/FileWriter.hpp"

#include "bastion/Log.hpp"
#include "bastion/Mutex.hpp"

#include <mutex>

namespace Bastion
{
  namespace
  {
    /// Serialises guarded writes across the process; recursive so guards nest on one thread.
    Mutex& writeMutex()
    {
      static Mutex mutex(true);
      return mutex;
    }

    /// Guards the chain of live guards, which current() reads from any thread.
    std::mutex s_chainMutex;
    FileWriter* s_innermost = nullptr;
  }

  FileWriter::FileWriter(const char* name)
      : m_name(name ? name : "")
      , m_outer(nullptr)
  {
    writeMutex().lock();
    {
      std::lock_guard<std::mutex> g(s_chainMutex);
      m_outer = s_innermost;
      s_innermost = this;
    }
    debug("FileWriter # begin %s", m_name.constData());
  }

  FileWriter::~FileWriter()
  {
    debug("FileWriter # end %s", m_name.constData());
    {
      std::lock_guard<std::mutex> g(s_chainMutex);
      s_innermost = m_outer;
    }
    writeMutex().unlock();
  }

  QByteArray FileWriter::current()
  {
    std::lock_guard<std::mutex> g(s_chainMutex);
    return s_innermost ? s_innermost->m_name : QByteArray();
  }
}
