#include "bastion/FileWriter.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

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

    /// The chain of live guards, which current() reads from any thread.
    struct Chain
    {
      Mutex mutex;
      FileWriter* innermost BASTION_GUARDED_BY(mutex) = nullptr;
    };

    Chain& chain()
    {
      static Chain c;
      return c;
    }
  }

  FileWriter::FileWriter(const char* name)
      : m_name(name ? name : "")
      , m_outer(nullptr)
  {
    writeMutex().lock();
    {
      Chain& c = chain();
      Guard g(c.mutex);
      m_outer = c.innermost;
      c.innermost = this;
    }
    debug("FileWriter # begin %s", m_name.constData());
  }

  FileWriter::~FileWriter()
  {
    debug("FileWriter # end %s", m_name.constData());
    {
      Chain& c = chain();
      Guard g(c.mutex);
      c.innermost = m_outer;
    }
    writeMutex().unlock();
  }

  QByteArray FileWriter::current()
  {
    Chain& c = chain();
    Guard g(c.mutex);
    return c.innermost ? c.innermost->m_name : QByteArray();
  }
}
