#ifndef INFRA_COMPONENT_SERVERINFO_H
#define INFRA_COMPONENT_SERVERINFO_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/String.h"

namespace Tarsel
{
namespace Component
{

/// A server, and how to log in to it. Plain data: start from `ServerInfo server = {}`. All texts
/// belong to somebody else; null is the empty text.
struct INFRA_API ServerInfo
{
    const char* serverAddress;
    uint32_t serverPort;
    const char* userName;
    const char* password;
    const char* random; ///< random value of the login exchange
    uint8_t loginType;
    uint8_t loginMode;
    uint16_t loginTimeout;
    const char* clientType;
    const char* clientAddress; ///< the client's own address
    const char* authorityType;
    const char* authorityInfo;
    uint32_t loginSession;
    const char* passwordType;
    uint8_t socketType;
    uint8_t encryption : 1;
    uint8_t resv : 7;
    uint8_t reservedBytes[2];
    uint32_t mediaPort;
    uint32_t passiveSocket;
    const char* targetID;
    const char* proxyToken;
    const char* stochastic; ///< additional random value
    uint8_t reserved[136];

    /// No server. Known by its address: a copy of it is a server without a name.
    static const ServerInfo none;
};

static_assert(sizeof(ServerInfo) == 272, "a fixed layout");

/// What a server asks a client for before it lets it in.
struct ServerChallenge
{
    Infra::CMiniString encryption;
    Infra::CMiniString realm;
    Infra::CMiniString random;
    Infra::CMiniString id;
    Infra::CMiniString authorization;
    int reserved[27];

    ServerChallenge() : reserved() {}
};

static_assert(sizeof(ServerChallenge) == 152, "a fixed layout");

} // namespace Component
} // namespace Tarsel

#endif
