#ifndef INFRA_TESTS_OLDER_NEWERHEADERS_H
#define INFRA_TESTS_OLDER_NEWERHEADERS_H

// The headers of the newer interface that have a twin in the older one, and what they stand with.

#include "Infra/Infra3/File.h"
#include "Infra/Infra3/FileFind.h"
#include "Infra/Infra3/Function.h"
#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/Semaphore.h"
#include "Infra/Infra3/Signal.h"
#include "Infra/Infra3/String.h"
#include "Infra/Infra3/SystemCall.h"
#include "Infra/Infra3/Thread.h"
#include "Infra/Infra3/ThreadManager.h"
#include "Infra/Infra3/Time.h"
#include "Infra/Infra3/Timer.h"
#include "Infra/Infra3/Version.h"
#include "Memory/MemPool.h"
#include "Memory/Packet.h"
#include "Memory/PacketManager.h"
#include "Utils/Math.h"
#include "Utils/Nls.h"
#include "Utils/String.h"

#endif
