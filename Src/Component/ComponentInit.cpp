// ComponentInit.cpp: the texts of the component framework's error codes.

#include <atomic>

#include "Component/Factory.h"
#include "Infra/Infra3/Error.h"

namespace Tarsel
{
namespace Component
{
namespace
{

struct ErrorText
{
    ComponentError code;
    const char* text;
};

constexpr ErrorText errorTexts[] = {
    {componentErrorInterfaceNotFound, "Component error: interface not found!"},
    {componentErrorClassNotFound, "Component error: class not found!"},
    {componentErrorClientNotFound, "Component error: client not found!"},
    {componentErrorClientNotExist, "Component error: client not exist!"},
    {componentErrorNotLoginYet, "Component error: not login yet!"},
    {componentErrorTryingLogin, "Component error: tring login!"},
    {componentErrorUserNameNotValid, "Component error: user's name not valid!"},
    {componentErrorPasswordNotValid, "Component error: password not valid!"},
    {componentErrorPeerHasBeenBlocked, "Component error: peer has been blocked!"},
    {componentErrorPeerInBlackList, "Component error: peer in blacklist!"},
    {componentErrorUserNameHasBeenUsed, "Component error: user's name has been used!"},
    {componentErrorTooManyConnections, "Component error: too many connections!"},
    {componentErrorHasNoAuthority, "Component error: no authority!"},
    {componentErrorCreateObjectFailed, "Component error: creating object failed!"},
    {componentErrorGetInstanceFailed, "Component error: getting instance failed!"},
    {componentErrorLoginChallenge, "Component error: login challenge!"},
    {componentErrorUserOrPwdNotValid, "Component error: User or password not valid!"},
};

constinit std::atomic<bool> s_installed{false};

} // namespace

void initComponent()
{
    if (s_installed.load(std::memory_order_relaxed) || s_installed.exchange(true)) {
        return;
    }
    for (const ErrorText& error : errorTexts) {
        Infra::setErrMsg(error.code, error.text);
    }
}

} // namespace Component
} // namespace Tarsel
