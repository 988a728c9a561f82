#include "plexa/files/FileListThread.hpp"

#include "plexa/files/AssetBase.hpp"

namespace Plexa
{
  FileListThread::FileListThread(AssetBase* store)
      : Bastion::Thread("Bastion::Thread")
      , m_store(store)
  {
  }

  FileListThread::~FileListThread()
  {
    waitEnd();
  }

  void FileListThread::childLoop()
  {
    m_store->buildFileList(nullptr);
  }
}
