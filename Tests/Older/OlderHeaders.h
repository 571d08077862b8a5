#ifndef INFRA_TESTS_OLDER_OLDERHEADERS_H
#define INFRA_TESTS_OLDER_OLDERHEADERS_H

// All headers of the older interface.

#include "Infra/CheckIncludeVersion.h"
#include "Infra/File.h"
#include "Infra/Function.h"
#include "Infra/MemPool.h"
#include "Infra/Mutex.h"
#include "Infra/Packet.h"
#include "Infra/Semaphore.h"
#include "Infra/Support.h"
#include "Infra/Thread.h"
#include "Infra/Time.h"
#include "Infra/Timer.h"
#include "Infra/Unicode.h"
#include "Infra/Version.h"

#endif
