#ifndef INFRA_INFRA3_ERROR_H
#define INFRA_INFRA3_ERROR_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/StandardString.h"

namespace Tarsel
{

/// Codes that the core runtime stores as a thread's last error. 1 to 34 are Linux's errno numbers
/// of the same names; those above differ from Linux's, so errno is never stored unchanged.
enum InfraError : int32_t
{
    errorPERM = 1,
    errorNOFILE = 2,
    errorNOENT = 2,
    errorSRCH = 3,
    errorINTR = 4,
    errorIO = 5,
    errorNXIO = 6,
    error2BIG = 7,
    errorNOEXEC = 8,
    errorBADF = 9,
    errorCHILD = 10,
    errorAGAIN = 11,
    errorNOMEM = 12,
    errorACCES = 13,
    errorFAULT = 14,
    errorBUSY = 16,
    errorEXIST = 17,
    errorXDEV = 18,
    errorNODEV = 19,
    errorNOTDIR = 20,
    errorISDIR = 21,
    errorINVAL = 22,
    errorNFILE = 23,
    errorMFILE = 24,
    errorNOTTY = 25,
    errorFBIG = 27,
    errorNOSPC = 28,
    errorSPIPE = 29,
    errorROFS = 30,
    errorMLINK = 31,
    errorPIPE = 32,
    errorDOM = 33,
    errorRANGE = 34,
    errorDEADLOCK = 36,
    errorDEADLK = 36,
    errorNAMETOOLONG = 38,
    errorNOLCK = 39,
    errorNOSYS = 40,
    errorNOTEMPTY = 41,
    errorILSEQ = 42,

    infraErrorNoFound = 0x10000000,
    infraErrorExist = 0x10000001,
    infraErrorFull = 0x10000002,
    infraErrorEmptyProc = 0x10000003,
    infraErrorNotInTimeSection = 0x10000004,
    infraErrorPalInterfaceEmpty = 0x10000005,
    infraErrorPalCallFailed = 0x10000006,
    infraErrorThreadIsRunning = 0x10000007,
    infraErrorThreadNotExist = 0x10000008,
    infraErrorThreadNotManaged = 0x10000009,
    infraErrorTlsOutOfIndexes = 0x1000000A,
    infraErrorTimerNotStarted = 0x1000000B,
    infraErrorTimerIsRunning = 0x1000000C,
    infraErrorPacketNoFree = 0x1000000D,
    infraErrorModifySysTimeFailed = 0x1000000E,
    infraErrorSyncRtcTimeFailed = 0x1000000F
};

/// Codes that the component framework stores as a thread's last error.
enum ComponentError : int32_t
{
    componentErrorInterfaceNotFound = 0x10030000,
    componentErrorClassNotFound = 0x10030001,
    componentErrorClientNotFound = 0x10030002,
    componentErrorClientNotExist = 0x10030003,
    componentErrorNotLoginYet = 0x10030004,
    componentErrorTryingLogin = 0x10030005,
    componentErrorUserNameNotValid = 0x10030006,
    componentErrorPasswordNotValid = 0x10030007,
    componentErrorPeerHasBeenBlocked = 0x10030008,
    componentErrorPeerInBlackList = 0x10030009,
    componentErrorUserNameHasBeenUsed = 0x1003000A,
    componentErrorTooManyConnections = 0x1003000B,
    componentErrorHasNoAuthority = 0x1003000C,
    componentErrorCreateObjectFailed = 0x1003000D,
    componentErrorGetInstanceFailed = 0x1003000E,
    componentErrorLoginChallenge = 0x1003000F,
    componentErrorUnimplementedOperation = 0x10030010,
    componentErrorAccountHasBeenBlocked = 0x10030011,
    componentErrorLoginConnectFailed = 0x10030012,
    componentErrorLoginTimeout = 0x10030013,
    componentErrorLoginFailure = 0x10030014,
    componentErrorUserOrPwdNotValid = 0x10030015,
    componentErrorHasNotInit = 0x10030016,
    componentErrorNeedModifyAdminPwd = 0x10030017,
    componentErrorLoginConnectTimeout = 0x10030018,
    componentErrorPasswordOverdue = 0x10030019,
    componentErrorNeedChangeLoginType = 0x1003001A,
    componentErrorServerMsgError = 0x1003001B,
    componentErrorProtocolMismatch = 0x1003001C,
    componentErrorLoginRestriction = 0x1003001D,
    componentErrorUnsupportHighSecurityLevel = 0x1003001E
};

namespace Infra
{

/// Stores `eno` as the calling thread's last error. Works in every thread at every time, exit
/// handlers included.
INFRA_API void setLastError(int eno);

/// The code that the calling thread stored last; 0, no error, when it never did.
INFRA_API int getLastError();

/// Stores a copy of `msg` as the text for `eno`, in place of an earlier one; null is the empty
/// text. Safe from any thread. Leaves the last error alone.
INFRA_API void setErrMsg(int eno, const char* msg);
/// The same for a string object.
INFRA_API void setErrorMessage(int eno, const CString2& msg);

/// The text stored for `eno`, "" when there is none. Safe from any thread.
/// The pointer belongs to the table and lives until that code's text is replaced. Exit handlers
/// find an empty table.
INFRA_API const char* getErrMsg(int eno);
/// A copy of the text stored for `eno`, empty when there is none.
INFRA_API CString2 getErrorMessage(int eno);

} // namespace Infra
} // namespace Tarsel

#endif
