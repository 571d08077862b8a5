// Client.cpp: the base of all clients, and the record of a session.
//
// What a look-up needs of a record never changes but for the user name, which changes once, under
// the list's lock. Readers outside of look-ups take the records' leaf lock for it.
//
// Two servers are the same when their numbers and texts are that count. The list keeps those one
// behind the other, so that a look-up among many clients does not fetch twenty fields from as many
// places.

#include "Component/Client.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "Component/ClientFactory.h"
#include "Component/ClientInternal.h"
#include "Component/ComponentInternal.h"
#include "Infra/Infra3/Error.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Hash.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Component
{
namespace
{

using Infra::CGuard;
using Infra::CRecursiveGuard;
using Infra::CTime;
using Infra::hashText;
using Infra::mixHash;
using Infra::textOrEmpty;

constinit thread_local int s_currentUserID = 0;

/// Guards what changes of all records after their making: login times and user names.
Infra::CMutex& recordMutex()
{
    return Infra::immortal<Infra::CLeafMutex, IClient::ClientInternal>();
}

bool refuse()
{
    Infra::setLastError(componentErrorUnimplementedOperation);
    return false;
}

/// The numbers that make a server the same, compared as bytes.
struct ServerNumbers
{
    explicit ServerNumbers(const ServerInfo& server)
        : serverPort(server.serverPort),
          mediaPort(server.mediaPort),
          loginSession(server.loginSession),
          loginType(server.loginType),
          loginMode(server.loginMode),
          socketType(server.socketType),
          encryption(server.encryption)
    {}

    const uint32_t serverPort;
    const uint32_t mediaPort;
    const uint32_t loginSession;
    const uint8_t loginType;
    const uint8_t loginMode;
    const uint8_t socketType;
    const uint8_t encryption;
};
static_assert(sizeof(ServerNumbers) == 16, "no byte between the numbers");

/// The texts that do so.
struct ServerTexts
{
    explicit ServerTexts(const ServerInfo& server)
        : texts{server.serverAddress, server.userName,      server.password, server.random,
                server.clientType,    server.clientAddress, server.targetID, server.proxyToken,
                server.passwordType,  server.authorityType}
    {}
    const char* const texts[10];
};

/// Compares the beginning of `key` and cuts it off when it is that.
bool takeFront(std::string_view& key, const void* bytes, size_t count)
{
    if (key.size() < count || memcmp(key.data(), bytes, count) != 0) {
        return false;
    }
    key.remove_prefix(count);
    return true;
}

/// Lends the record's texts. What takes no part in it stays as it is.
void describeServer(const IClient::ClientInternal& record, ServerInfo& server)
{
    server.serverAddress = record.serverAddress.c_str();
    server.serverPort = record.serverPort;
    server.userName = record.userName.c_str();
    server.password = record.password.c_str();
    server.random = record.random.c_str();
    server.loginType = record.loginType;
    server.loginMode = record.loginMode;
    server.clientType = record.clientType.c_str();
    server.clientAddress = record.clientAddress.c_str();
    server.authorityType = record.authorityType.c_str();
    server.authorityInfo = record.authorityInfo.c_str();
    server.loginSession = record.loginSession;
    server.passwordType = record.passwordType.c_str();
    server.socketType = record.socketType;
    server.encryption = record.encryption & 1;
    server.mediaPort = record.mediaPort;
    server.passiveSocket = record.passiveSocket;
    server.targetID = record.targetID.c_str();
    server.proxyToken = record.proxyToken.c_str();
    server.stochastic = record.stochastic.c_str();
}

} // namespace

// The record.

IClient::ClientInternal::ClientInternal(const ClassID& clsid, const ServerInfo& server,
                                        bool byFactory)
    : classID(textOrEmpty(clsid.m_str)),
      serverAddress(textOrEmpty(server.serverAddress)),
      serverPort(server.serverPort),
      password(textOrEmpty(server.password)),
      random(textOrEmpty(server.random)),
      authorityType(textOrEmpty(server.authorityType)),
      authorityInfo(textOrEmpty(server.authorityInfo)),
      passwordType(textOrEmpty(server.passwordType)),
      loginType(server.loginType),
      loginMode(server.loginMode),
      loginSession(server.loginSession),
      clientType(textOrEmpty(server.clientType)),
      clientAddress(textOrEmpty(server.clientAddress)),
      socketType(server.socketType),
      mediaPort(server.mediaPort),
      passiveSocket(server.passiveSocket),
      targetID(textOrEmpty(server.targetID)),
      proxyToken(textOrEmpty(server.proxyToken)),
      stochastic(textOrEmpty(server.stochastic)),
      encryption(server.encryption),
      byFactoryCreate(byFactory)
{
    keepUserName(textOrEmpty(server.userName));
    retryTime = CTime::getCurrentMilliSecond();
}

IClient::ClientInternal::~ClientInternal()
{
    wipe(password);
}

void IClient::ClientInternal::keepUserName(const char* name)
{
    userNameBefore.swap(userName);
    userName.reserve(32); // so that a later swap does not move the text
    userName = name;
}

// Finding.

std::string_view clientClassOf(const ClassID& clsid)
{
    const std::string_view name = textOrEmpty(clsid.m_str);
    return name.substr(0, name.find('.'));
}

size_t clientHash(const ServerInfo& server)
{
    size_t hash = mixHash(uint64_t{server.serverPort} << 32 | server.mediaPort,
                          uint64_t{server.loginSession} << 32 | uint64_t{server.loginType} << 24 |
                              uint64_t{server.loginMode} << 16 | uint64_t{server.socketType} << 8 |
                              server.encryption);
    for (const char* text : ServerTexts(server).texts) {
        hash = text == nullptr || *text == '\0' ? mixHash(hash, 0) : hashText(text, hash);
    }
    return hash;
}

size_t clientHash(IClient* client)
{
    ServerInfo server = {};
    describeServer(*client->m_internal, server);
    return clientHash(server);
}

bool clientIsSameAs(IClient* client, const ClassID& clsid, int uid)
{
    INFRA_ASSERT_TEXT(client != nullptr && client->m_internal != nullptr,
                      "client != NULL && client->m_internal != NULL");
    const std::string_view prefix = clientClassOf(clsid);
    if (client->m_internal->classID.compare(0, prefix.size(), prefix) != 0) {
        return false;
    }
    int found = -1;
    client->getUserID(found);
    return found == uid;
}

bool clientIsSameAs(IClient* client, const ClassID& clsid, const ServerInfo& server)
{
    INFRA_ASSERT_TEXT(client != nullptr && client->m_internal != nullptr,
                      "client != NULL && client->m_internal != NULL");
    return ListedClient(client).isFor(clientClassOf(clsid), server);
}

// What the list compares. A class name fits when the key begins with it; what is behind a class name
// in the key is found from the end of the key's own.

ListedClient::ListedClient(IClient* listed) : client(listed)
{
    const std::string& classID = listed->m_internal->classID;
    ServerInfo server = {};
    describeServer(*listed->m_internal, server);
    const ServerNumbers numbers(server);
    const ServerTexts texts(server);
    size_t size = classID.size() + 1 + sizeof(numbers);
    for (const char* text : texts.texts) {
        size += strlen(text) + 1;
    }
    key.reserve(size); // a key that grew would leave its password in each block before
    key.append(classID).push_back('\0');
    key.append(reinterpret_cast<const char*>(&numbers), sizeof(numbers));
    for (const char* text : texts.texts) {
        key.append(text).push_back('\0');
    }
}

ListedClient::~ListedClient()
{
    wipe(key);
}

bool ListedClient::isFor(std::string_view className, const ServerInfo& server) const
{
    std::string_view rest = key;
    if (!takeFront(rest, className.data(), className.size())) {
        return false;
    }
    rest.remove_prefix(rest.find('\0') + 1);
    const ServerNumbers numbers(server);
    if (!takeFront(rest, &numbers, sizeof(numbers))) {
        return false;
    }
    for (const char* text : ServerTexts(server).texts) {
        const char* const wanted = textOrEmpty(text);
        if (!takeFront(rest, wanted, strlen(wanted) + 1)) {
            return false;
        }
    }
    return true;
}

// Making and logging in.

void clientCreateInternal(IClient* client, const ClassID& clsid, const ServerInfo& server,
                          bool byFactoryCreate)
{
    INFRA_ASSERT_TEXT(client != nullptr && client->m_internal == nullptr,
                      "client != NULL && client->m_internal == NULL");
    client->m_internal = new IClient::ClientInternal(clsid, server, byFactoryCreate);
}

int64_t clientGetAndMarkUsing(IClient* client)
{
    INFRA_ASSERT_TEXT(client != nullptr && client->m_internal != nullptr,
                      "client != NULL && client->m_internal != NULL");
    std::atomic<int64_t>& isUsing = client->m_internal->externalUsing;
    return isUsing.load() == 1 ? 1 : isUsing.exchange(1);
}

bool clientLogin(IClient* client)
{
    INFRA_ASSERT_TEXT(client != nullptr && client->m_internal != nullptr,
                      "client != NULL && client->m_internal != NULL");
    IClient::ClientInternal& record = *client->m_internal;
    record.retryTime = CTime::getCurrentMilliSecond();
    if (!client->login()) {
        return false;
    }
    const CTime now = CTime::getCurrentTime();
    {
        CGuard guard(recordMutex());
        record.loginTime = now;
    }
    ++record.logins;
    record.state = IClient::ClientInternal::logined;
    return true;
}

bool clientLoginOnce(IClient* client)
{
    IClient::ClientInternal& record = *client->m_internal;
    CRecursiveGuard guard(record.loginMutex);
    return record.state.load() == IClient::ClientInternal::logined || clientLogin(client);
}

bool clientLoginAgain(IClient* client, uint64_t loginsSeen)
{
    IClient::ClientInternal& record = *client->m_internal;
    CRecursiveGuard guard(record.loginMutex);
    const bool isAnotherSession = record.state.load() == IClient::ClientInternal::logined &&
                                  record.logins.load() != loginsSeen;
    if (isAnotherSession && !client->isBroken()) {
        return true;
    }
    record.state = IClient::ClientInternal::broken;
    return clientLogin(client);
}

// IClient.

IClient::IClient() : m_internal(nullptr)
{
    IUnknown::m_internal->client = this;
}

IClient::~IClient()
{
    if (m_internal != nullptr && CClientInstanceList::existing() != nullptr) {
        CClientInstanceList::existing()->remove(this);
    }
    delete m_internal;
}

bool IClient::checkAuthority(const std::string& /*authority*/)
{
    return refuse();
}

bool IClient::getCurrentTime(CTime& /*time*/)
{
    return refuse();
}

bool IClient::setCurrentTime(const CTime& /*time*/, int /*toleranceSeconds*/)
{
    return refuse();
}

bool IClient::loginAgain(const ServerInfo& /*server*/)
{
    return refuse();
}

bool IClient::checkAuthorityString(const char* /*authority*/)
{
    return refuse();
}

bool IClient::loginFirst()
{
    return refuse();
}

bool IClient::getChallenge(ServerChallenge& /*challenge*/)
{
    return refuse();
}

bool IClient::attachStatusProc(StatusProc proc)
{
    INFRA_ASSERT(m_internal);
    return m_internal->statusSignal.attach(proc) >= 1;
}

bool IClient::detachStatusProc(StatusProc proc)
{
    INFRA_ASSERT(m_internal);
    return m_internal->statusSignal.detach(proc) >= 0;
}

bool IClient::getServerInfo(ServerInfo& server)
{
    INFRA_ASSERT(m_internal);
    {
        CGuard guard(recordMutex());
        describeServer(*m_internal, server);
    }
    if (*server.userName == '\0') {
        INFRA_LOG_WARN("this:%p userName of client is a null string!\n", static_cast<void*>(this));
    }
    return true;
}

bool IClient::getLoginTime(CTime& time)
{
    INFRA_ASSERT(m_internal);
    CGuard guard(recordMutex());
    time = m_internal->loginTime;
    return true;
}

bool IClient::abort(int reason)
{
    INFRA_ASSERT(m_internal);
    addRef();
    const TComPtr<IClient> self(this, nullptr, 0);
    m_internal->statusSignal(m_internal->customData.load(), ClassID(m_internal->classID.c_str()),
                             self, statusSessionAborted, reason);
    return logout();
}

void IClient::setCustomData(void* data)
{
    INFRA_ASSERT(m_internal);
    m_internal->customData = data;
}

void* IClient::getCustomData()
{
    INFRA_ASSERT(m_internal);
    return m_internal->customData;
}

bool IClient::saveUserName(const char* userName)
{
    INFRA_ASSERT(m_internal);
    if (!CClientInstanceList::instance()->saveUserName(this, textOrEmpty(userName))) {
        INFRA_LOG_WARN("this:%p username of client has already saved.\n", static_cast<void*>(this));
    }
    return true;
}

bool CClientInstanceList::saveUserName(IClient* client, const char* userName)
{
    IClient::ClientInternal& record = *client->m_internal;
    CRecursiveGuard guard(m_mutex);
    if (record.bUserNameSaved) {
        return false;
    }
    record.bUserNameSaved = true;
    {
        CGuard recordGuard(recordMutex());
        record.keepUserName(userName);
    }
    if (record.place != nullptr) {
        wipe(record.place->value.key);
        record.place->value = ListedClient(client);
        m_clientList.rehash(record.place, clientHash(client));
    }
    return true;
}

int IClient::getCurrentUserID()
{
    return s_currentUserID;
}

namespace Detail
{

bool CComponentHelper::setAsCurrentUser(IClient* client)
{
    if (client == nullptr) {
        return false;
    }
    int userID = -1;
    client->getUserID(userID);
    s_currentUserID = userID;
    return true;
}

IClient* getClientOfUser(const ClassID& clsid, int uid)
{
    IClient* const client = ClientFactory::getAndMakeClientInstance(clsid, uid);
    if (client == nullptr) {
        CComponentHelper::makeComponentInstance(nullptr); // says that there is none
    }
    return client;
}

void addClientRef(IClient* client)
{
    CComponentHelper::addRef(client);
}

void releaseClient(IClient* client)
{
    CComponentHelper::release(client);
}

} // namespace Detail
} // namespace Component
} // namespace Tarsel
