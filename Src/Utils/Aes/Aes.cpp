// Aes.cpp: CAes, one object a mode behind one pointer.
//
//     CAes --> AesInternal: CAesECB, CAesCBC, CAesCFB8, CAesCFB128 or CAesCTR
//
// A mode object holds its schedules, what its mode carries from call to call, and the engine that
// suits the processor, chosen once. A call is one virtual call and one through the engine.

#include "Utils/Aes.h"

#include <cstring>
#include <new>

#include "Infra3/LogFront.h"
#include "Utils/Aes/AesEngine.h"

namespace Tarsel
{
namespace Utils
{
namespace
{

[[gnu::cold]] bool sayNotUsable()
{
    INFRA_LOG_ERROR("aes init failed.\n");
    return false;
}

} // namespace

/// One mode. Wiped as a whole when it is deleted: schedules, IV and key stream.
class AesInternal
{
public:
    AesInternal() = default;
    virtual ~AesInternal() = default;
    virtual bool encrypt(uint8_t* dst, const uint8_t* src, size_t size) = 0;
    virtual bool decrypt(uint8_t* dst, const uint8_t* src, size_t size) = 0;
    AesInternal(const AesInternal&) = delete;
    AesInternal& operator=(const AesInternal&) = delete;

    static void operator delete(void* object, size_t size)
    {
        explicit_bzero(object, size);
        ::operator delete(object);
    }
    /// For a constructor that ends with an exception, which a printer of log lines may throw: it
    /// has had no key.
    static void operator delete(void* object, const std::nothrow_t&) noexcept
    {
        ::operator delete(object);
    }

protected:
    /// Whether a call can run; `unit` is what its size has to be a multiple of.
    bool accepts(const uint8_t* dst, const uint8_t* src, size_t size, size_t unit) const
    {
        if (m_valid && dst != nullptr && src != nullptr) {
            return size % unit == 0;
        }
        return m_valid ? size == 0 : sayNotUsable();
    }

    /// A missing key is logged by the name of the mode.
    static bool hasKey(const uint8_t* key, const char* mode)
    {
        if (key == nullptr) {
            INFRA_LOG_ERROR("%s key is NULL\n", mode);
        }
        return key != nullptr;
    }

    bool m_valid = false; ///< every schedule of the object was built
};

namespace AES
{
namespace
{

void copyIv(uint8_t (&own)[blockSize], const uint8_t* iv)
{
    if (iv != nullptr) {
        memcpy(own, iv, blockSize);
    }
}

class CAesECB : public AesInternal
{
public:
    CAesECB(const uint8_t* key, unsigned int keybits) : m_engine(chooseEngine())
    {
        if (hasKey(key, "AesECB") && setEncryptKey(m_engine, m_enCtx, key, keybits)) {
            m_engine.invertSchedule(m_enCtx, m_deCtx);
            m_valid = true;
        }
    }
    bool encrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        if (!accepts(dst, src, size, blockSize)) {
            return false;
        }
        if (size == blockSize) {
            m_engine.encryptBlock(m_enCtx, src, dst);
        } else {
            m_engine.ecbEncrypt(m_enCtx, size / blockSize, src, dst);
        }
        return true;
    }
    bool decrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        if (!accepts(dst, src, size, blockSize)) {
            return false;
        }
        if (size == blockSize) {
            m_engine.decryptBlock(m_deCtx, src, dst);
        } else {
            m_engine.ecbDecrypt(m_deCtx, size / blockSize, src, dst);
        }
        return true;
    }

private:
    aes_context m_enCtx;
    aes_context m_deCtx;
    const AesEngine& m_engine;
};

class CAesCBC : public AesInternal
{
public:
    CAesCBC(const uint8_t* key, unsigned int keybits, const uint8_t* iv) : m_engine(chooseEngine())
    {
        copyIv(m_iv, iv);
        if (hasKey(key, "AesCBC") && setEncryptKey(m_engine, m_enCtx, key, keybits)) {
            m_engine.invertSchedule(m_enCtx, m_deCtx);
            m_valid = true;
        }
    }
    bool encrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        if (!accepts(dst, src, size, blockSize)) {
            return false;
        }
        m_engine.cbcEncrypt(m_enCtx, size / blockSize, m_iv, src, dst);
        return true;
    }
    bool decrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        if (!accepts(dst, src, size, blockSize)) {
            return false;
        }
        m_engine.cbcDecrypt(m_deCtx, size / blockSize, m_iv, src, dst);
        return true;
    }

private:
    aes_context m_enCtx;
    aes_context m_deCtx;
    uint8_t m_iv[blockSize] = {}; ///< the ciphertext block before the next one
    const AesEngine& m_engine;
};

/// A mode that turns AES into a stream of bytes: both directions encipher, and any size is right.
class CStreamMode : public AesInternal
{
protected:
    CStreamMode(const char* mode, const uint8_t* key, unsigned int keybits, const uint8_t* iv)
        : m_engine(chooseEngine())
    {
        copyIv(m_iv, iv);
        m_valid = hasKey(key, mode) && setEncryptKey(m_engine, m_endeCtx, key, keybits);
    }

    aes_context m_endeCtx;
    const AesEngine& m_engine;
    uint8_t m_iv[blockSize] = {};
};

/// `m_iv` is the 16 ciphertext bytes before the next one.
class CAesCFB8 : public CStreamMode
{
public:
    CAesCFB8(const uint8_t* key, unsigned int keybits, const uint8_t* iv)
        : CStreamMode("AesCFB8", key, keybits, iv)
    {}
    bool encrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        if (!accepts(dst, src, size, 1)) {
            return false;
        }
        m_engine.cfb8Encrypt(m_endeCtx, size, m_iv, src, dst);
        return true;
    }
    bool decrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        if (!accepts(dst, src, size, 1)) {
            return false;
        }
        m_engine.cfb8Decrypt(m_endeCtx, size, m_iv, src, dst);
        return true;
    }
};

/// `m_iv` is ciphertext before `m_off`, key stream from it on.
class CAesCFB128 : public CStreamMode
{
public:
    CAesCFB128(const uint8_t* key, unsigned int keybits, const uint8_t* iv)
        : CStreamMode("AesCFB128", key, keybits, iv)
    {}
    bool encrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        return crypt(true, dst, src, size);
    }
    bool decrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        return crypt(false, dst, src, size);
    }

private:
    bool crypt(bool encrypts, uint8_t* dst, const uint8_t* src, size_t size)
    {
        if (!accepts(dst, src, size, 1)) {
            return false;
        }
        cryptCfb128(m_engine, m_endeCtx, encrypts, size, m_off, m_iv, src, dst);
        return true;
    }

    size_t m_off = 0; ///< 0 to 15: how much of `m_iv` is used up
};

/// `m_iv` is the next counter block.
class CAesCTR : public CStreamMode
{
public:
    CAesCTR(const uint8_t* key, unsigned int keybits, const uint8_t* iv)
        : CStreamMode("AesCTR", key, keybits, iv)
    {}
    bool encrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        if (!accepts(dst, src, size, 1)) {
            return false;
        }
        cryptCtr(m_engine, m_endeCtx, size, m_off, m_iv, m_buf, src, dst);
        return true;
    }
    bool decrypt(uint8_t* dst, const uint8_t* src, size_t size) override
    {
        return encrypt(dst, src, size);
    }

private:
    size_t m_off = 0;              ///< 0 to 15: how much of `m_buf` is used up
    uint8_t m_buf[blockSize] = {}; ///< the key stream of the counter block before
};

/// Null for a mode that there is not, and without memory.
AesInternal* makeMode(CAes::EncMode mode, const uint8_t* key, unsigned int keybits,
                      const uint8_t* iv)
{
    switch (mode) {
    case CAes::MODE_ECB:
        return new (std::nothrow) CAesECB(key, keybits);
    case CAes::MODE_CBC:
        return new (std::nothrow) CAesCBC(key, keybits, iv);
    case CAes::MODE_CFB8:
        return new (std::nothrow) CAesCFB8(key, keybits, iv);
    case CAes::MODE_CFB128:
        return new (std::nothrow) CAesCFB128(key, keybits, iv);
    case CAes::MODE_CTR:
        return new (std::nothrow) CAesCTR(key, keybits, iv);
    }
    return nullptr;
}

} // namespace
} // namespace AES

CAes::CAes(EncMode mode, const uint8_t* key, KeyBits keybits, const uint8_t* iv)
    : m_internal(AES::makeMode(mode, key, static_cast<unsigned int>(keybits), iv))
{}

CAes::~CAes()
{
    delete m_internal;
}

bool CAes::encrypt(uint8_t* dst, const uint8_t* src, size_t size)
{
    return m_internal != nullptr ? m_internal->encrypt(dst, src, size) : sayNotUsable();
}

bool CAes::decrypt(uint8_t* dst, const uint8_t* src, size_t size)
{
    return m_internal != nullptr ? m_internal->decrypt(dst, src, size) : sayNotUsable();
}

} // namespace Utils
} // namespace Tarsel
