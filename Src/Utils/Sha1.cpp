// Sha1.cpp: CSha1, when a message begins and ends.

#include "Utils/Sha1.h"

#include <cstring>

#include "Infra3/LogFront.h"
#include "Utils/DigestText.h"
#include "Utils/Sha1Alg.h"

namespace Tarsel
{
namespace Utils
{

struct Sha1Internal
{
    SHA1::SHA1Context ctx;
    uint8_t hash[SHA1::digestSize]; ///< zeros until the message is complete
    bool is_final;                  ///< `hash` is the message's
    SHA1::BlockRun* hashBlocks;     ///< what suits the processor
};

namespace
{

constexpr size_t hexSize = 2 * SHA1::digestSize;

void startMessage(Sha1Internal& sha1)
{
    SHA1::start(sha1.ctx);
    memset(sha1.hash, 0, sizeof(sha1.hash));
    sha1.is_final = false;
}

/// Completes the digest, unless that is done.
const uint8_t* completed(Sha1Internal& sha1)
{
    if (!sha1.is_final) {
        SHA1::finish(sha1.ctx, sha1.hashBlocks, sha1.hash);
        sha1.is_final = true;
    }
    return sha1.hash;
}

/// False, said, where `len` is too little.
bool isEnough(size_t len, size_t needed)
{
    if (len < needed) {
        INFRA_LOG_ERROR("len:%u is invalid!\n", static_cast<unsigned>(len));
    }
    return len >= needed;
}

} // namespace

CSha1::CSha1() : m_internal(new Sha1Internal)
{
    startMessage(*m_internal);
    m_internal->hashBlocks = SHA1::chooseBlockRun();
}

CSha1::~CSha1()
{
    delete m_internal;
}

void CSha1::update(const uint8_t* data, size_t size)
{
    if (data == nullptr || size == 0) {
        return;
    }
    if (m_internal->is_final) {
        startMessage(*m_internal);
    }
    SHA1::append(m_internal->ctx, m_internal->hashBlocks, data, size);
}

void CSha1::final(uint8_t* hash, size_t len)
{
    if (hash == nullptr) {
        INFRA_LOG_ERROR("hash is NULL!\n");
        return;
    }
    if (isEnough(len, SHA1::digestSize)) {
        memcpy(hash, completed(*m_internal), SHA1::digestSize);
    }
}

void CSha1::hex(char* str, size_t len)
{
    if (str == nullptr) {
        INFRA_LOG_ERROR("str is NULL!\n");
        return;
    }
    if (!isEnough(len, hexSize)) {
        return;
    }
    writeHex(str, completed(*m_internal), SHA1::digestSize);
    if (len > hexSize) {
        str[hexSize] = '\0';
    }
}

} // namespace Utils
} // namespace Tarsel
