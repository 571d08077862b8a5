// File.cpp: the older files and listings.

#include "Infra/File.h"

#include "Infra/Infra3/FileFind.h"

typedef Tarsel::Infra::CFile NewerFile;

struct FileInternal
{
    NewerFile file;
};

struct FileFindInternal
{
    Tarsel::Infra::CFileFind finder;
};

CFile::CFile() : m_internal(new FileInternal) {}

CFile::~CFile()
{
    delete m_internal;
}

bool CFile::Open(const char* pFileName, unsigned int dwFlags)
{
    return m_internal->file.open(pFileName, dwFlags);
}

void CFile::Close()
{
    m_internal->file.close();
}

unsigned char* CFile::Load(const char* pFileName)
{
    return m_internal->file.load(pFileName);
}

void CFile::UnLoad()
{
    m_internal->file.unload();
}

long CFile::Read(void* pBuffer, size_t dwCount)
{
    return m_internal->file.read(pBuffer, dwCount);
}

long CFile::Write(void* pBuffer, size_t dwCount)
{
    return m_internal->file.write(pBuffer, dwCount);
}

void CFile::Flush()
{
    m_internal->file.flush();
}

size_t CFile::Seek(long lOff, unsigned int nFrom)
{
    return m_internal->file.seek(lOff, static_cast<NewerFile::SeekPosition>(nFrom));
}

size_t CFile::GetPosition()
{
    return m_internal->file.getPosition();
}

size_t CFile::GetLength()
{
    return m_internal->file.getLength();
}

char* CFile::Gets(char* s, size_t size)
{
    return m_internal->file.gets(s, size);
}

long CFile::Puts(const char* s)
{
    return m_internal->file.puts(s);
}

bool CFile::IsOpened()
{
    return m_internal->file.isOpen();
}

bool CFile::Rename(const char* oldName, const char* newName)
{
    return NewerFile::rename(oldName, newName);
}

bool CFile::Remove(const char* pFileName)
{
    return NewerFile::remove(pFileName);
}

bool CFile::MakeDirectory(const char* dirName)
{
    return NewerFile::makeDirectory(dirName);
}

bool CFile::RemoveDirectory(const char* dirName)
{
    return NewerFile::removeDirectory(dirName);
}

bool CFile::StatFS(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
                   uint64_t& totalFreeBytes)
{
    return NewerFile::statFS(path, userFreeBytes, totalBytes, totalFreeBytes);
}

bool CFile::Access(const char* path, int mode)
{
    return NewerFile::access(path, mode);
}

bool CFile::Stat(const char* path, FileInfo* info)
{
    return info != nullptr && NewerFile::stat(path, *info);
}

CFileFind::CFileFind() : m_internal(new FileFindInternal) {}

CFileFind::~CFileFind()
{
    delete m_internal;
}

bool CFileFind::findFile(const char* fileName)
{
    return m_internal->finder.findFile(fileName);
}

bool CFileFind::findNextFile()
{
    return m_internal->finder.findNextFile();
}

void CFileFind::close()
{
    m_internal->finder.close();
}

size_t CFileFind::getLength()
{
    return m_internal->finder.getLength();
}

std::string CFileFind::getFileName()
{
    return m_internal->finder.getFileName();
}

std::string CFileFind::getFilePath()
{
    return m_internal->finder.getFilePath();
}

bool CFileFind::isReadOnly()
{
    return m_internal->finder.isReadOnly();
}

bool CFileFind::isDirectory()
{
    return m_internal->finder.isDirectory();
}

bool CFileFind::isHidden()
{
    return m_internal->finder.isHidden();
}

bool CFileFind::isNormal()
{
    return m_internal->finder.isNormal();
}
