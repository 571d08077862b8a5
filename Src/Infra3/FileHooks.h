#ifndef INFRA_SRC_INFRA3_FILEHOOKS_H
#define INFRA_SRC_INFRA3_FILEHOOKS_H

// Hooking in parts, for whoever keeps a table of its own beside the hook table and changes both at
// once, as hookFS() does:
//
//     announceHooking();
//     const CGuard guard(hookMutex());
//     ... setHook(path, fileSystem); ... one's own table

#include "Infra/Infra3/File.h"
#include "Infra3/LeafMutex.h"

namespace Tarsel
{
namespace Infra
{

/// Guards changes of the hook table. Finding the file system of a path takes no lock.
CLeafMutex& hookMutex();

/// Says on the log that hooks change, which runs the application's printers: hold no lock.
void announceHooking();

/// hookFileSystem() without its announcement, for a path that is not empty. hookMutex() is held.
void setHook(const char* path, IFileSystem* fileSystem);

} // namespace Infra
} // namespace Tarsel

#endif
