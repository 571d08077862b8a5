#ifndef INFRA_TESTS_OLDER_TWINS_H
#define INFRA_TESTS_OLDER_TWINS_H

// Every name that both interfaces have, used in both. Included behind the headers, in either order.

#include <string>

inline bool twinsAgree()
{
    ::CMutex mutex;
    Tarsel::Infra::CMutex newerMutex;
    ::CGuard guard(mutex);
    Tarsel::Infra::CGuard newerGuard(newerMutex);
    ::CSemaphore semaphore(1);
    Tarsel::Infra::CSemaphore newerSemaphore(1);
    ::TFunction0<void> function;
    Tarsel::Infra::TFunction0<void> newerFunction = function;
    ::TFunction1<void, unsigned long> function1;
    Tarsel::Infra::TFunction1<void, unsigned long> newerFunction1(function1);
    ::CTimer timer("older");
    Tarsel::Infra::CTimer newerTimer("newer");
    ::CTime time(2019, 3, 7, 5, 4, 3);
    Tarsel::Infra::CTime newerTime(2019, 3, 7, 5, 4, 3);
    ::SystemTime fields = time;
    Tarsel::Infra::SystemTime& newerFields = fields;
    ::CFile file;
    Tarsel::Infra::CFile newerFile;
    ::CFileFind finder;
    Tarsel::Infra::CFileFind newerFinder;
    ::FileHandle handle = nullptr;
    Tarsel::Infra::FileHandle& newerHandle = handle;
    ::FileInfo info = {};
    Tarsel::Infra::FileInfo& newerInfo = info;
    ::CPacket packet;
    Tarsel::Memory::CPacket newerPacket = packet;
    ::CMemPool pool(16, 1);
    Tarsel::Memory::Detail::CMemPool newerPool(16, 1);
    ::CVersion version("twin", 1, 2, 3, "4", "Nov  8 2019");
    Tarsel::Infra::CVersion newerVersion("twin", 1, 2, 3, "4", "Nov  8 2019");
    return semaphore.Pend() == 0 && newerSemaphore.pend() == 0 && newerFunction.empty() &&
           newerFunction1.empty() && std::string(timer.GetName()) == "older" &&
           std::string(newerTimer.getName()) == "newer" && time == ::CTime(newerTime) &&
           newerFields.year == 2019 && !file.IsOpened() && !newerFile.isOpen() &&
           !finder.isDirectory() && !newerFinder.isDirectory() && newerInfo.size == 0 &&
           newerHandle == nullptr && version.svn == newerVersion.svn && packet.GetSize() == 0 &&
           !newerPacket.valid() && ::log2i(1024) == 10 && Tarsel::Utils::log2i(1024) == 10 &&
           pool.alloc() != newerPool.malloc() &&
           ::CThread::GetCurrentThreadID() == Tarsel::Infra::CThread::getCurrentThreadID() &&
           static_cast<void*>(::CThreadManager::instance()) !=
               Tarsel::Infra::CThreadManager::instance() &&
           static_cast<void*>(::CTimerManager::instance()) !=
               Tarsel::Infra::CTimerManager::instance() &&
           static_cast<void*>(::CPacketManager::instance()) !=
               Tarsel::Memory::CPacketManager::instance() &&
           ::systemCall(nullptr) == Tarsel::Infra::systemCall(nullptr);
}

template <typename Function>
bool standTwice(Function* older, Function* newer)
{
    return older != newer;
}

inline bool characterSetsStandTwice()
{
    namespace Utils = Tarsel::Utils;
    return standTwice(::utf8_to_cp1252, Utils::utf8_to_cp1252) &&
           standTwice(::cp1252_to_utf8, Utils::cp1252_to_utf8) &&
           standTwice(::GetUnicodeFromUtf8, Utils::GetUnicodeFromUtf8) &&
           standTwice(::utf8_wcstombs, Utils::utf8_wcstombs) &&
           standTwice(::utf8_wctomb, Utils::utf8_wctomb) &&
           standTwice(::utf8_mbstowcs, Utils::utf8_mbstowcs) &&
           standTwice(::utf8_mbtowc, Utils::utf8_mbtowc) &&
           standTwice(::char2uni, Utils::char2uni) && standTwice(::uni2char, Utils::uni2char) &&
           standTwice(::UniTGb2312, Utils::UniTGb2312) &&
           standTwice(::Gb2312ToUni, Utils::Gb2312ToUni) &&
           standTwice(::utf8TGb2312, Utils::utf8TGb2312) &&
           standTwice(::Gb2312TUtf8, Utils::Gb2312TUtf8);
}

#endif
