// Des.cpp: CTripleDes, runs of whole blocks in ECB and CBC.
//
// The key of an object never changes, so its schedules are made once, at construction, and only
// read from then on: calls need no lock, not even on one object.

#include "Utils/TripleDes.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Infra3/AssertFront.h"
#include "Infra3/LogFront.h"
#include "Utils/d3des.h"
#include "Utils/StackWipe.h"

namespace Tarsel
{
namespace Utils
{

using DES::des_func;
using DES::Direction;

/// `func`, with `key` and `key_length`, says which cipher it is.
struct TripleDesInternal
{
    uint8_t key[24];      ///< zeros where the key that was given ends
    size_t key_length;    ///< at most 24
    uint8_t iv[16];       ///< one block; zeros when none was given
    bool cbc;             ///< an IV was given
    const des_func* func; ///< null for a block type that there is not
    DES::Schedules keys;  ///< of `key`
};

namespace
{

const des_func* blockFunction(size_t keyLength, CTripleDes::BlockType block)
{
    if (keyLength <= 8) {
        return &DES::singleDes;
    }
    switch (block) {
    case CTripleDes::block8:
        return &DES::tripleDes;
    case CTripleDes::block16:
        return &DES::doubleBlockTripleDes;
    }
    return nullptr;
}

size_t blockSizeOf(const des_func* func)
{
    const size_t block_size = func != nullptr ? func->blockSize : 0;
    INFRA_ASSERT(block_size > 0);
    return block_size;
}

/// With two keys the third one is the first.
void makeSchedules(TripleDesInternal& cipher)
{
    DES::setKey(cipher.keys.pass[0], cipher.key);
    if (cipher.key_length > 8) {
        DES::setKey(cipher.keys.pass[1], cipher.key + 8);
        cipher.keys.pass[2] = cipher.keys.pass[0];
    }
    if (cipher.key_length > 16) {
        DES::setKey(cipher.keys.pass[2], cipher.key + 16);
    }
}

/// `size` is a multiple of the block. The block functions spill parts of the blocks, which the
/// compiler places: where their frames were is wiped as a whole.
void en_de_crypt(const TripleDesInternal& cipher, Direction direction, size_t size,
                 const uint8_t* src, uint8_t* dst)
{
    if (src == nullptr) {
        INFRA_LOG_ERROR("en_de_crypt(): src is NULL!!\n");
        return;
    }
    if (dst == nullptr) {
        INFRA_LOG_ERROR("en_de_crypt(): dst is NULL!!\n");
        return;
    }
    const des_func& func = *cipher.func;
    const size_t blocks = size / func.blockSize;
    if (!cipher.cbc) {
        func.crypt(cipher.keys, direction, blocks, src, dst);
    } else if (direction == Direction::encrypt) {
        func.encryptChain(cipher.keys, cipher.iv, blocks, src, dst);
    } else {
        func.decryptChain(cipher.keys, cipher.iv, blocks, src, dst);
    }
    wipeStackBelow<512>();
}

bool crypt(const CTripleDes* object, const TripleDesInternal& cipher, Direction direction,
           uint8_t* dst, const uint8_t* src, size_t size)
{
    if (cipher.key_length == 0) {
        INFRA_LOG_ERROR("this:%p key_length is %u,is unvalid!\n", static_cast<const void*>(object),
                        static_cast<unsigned>(cipher.key_length));
        return false;
    }
    const size_t block = blockSizeOf(cipher.func);
    const size_t real_size = size / block * block;
    if (real_size != size) {
        INFRA_LOG_ERROR("this:%p CTripleDes::encrypt(): size is not the multiple of %s "
                        "'BlockSize'!!! size:%zu, real_size:%zu\n",
                        static_cast<const void*>(object),
                        direction == Direction::encrypt ? "the" : "th", size, real_size);
    }
    en_de_crypt(cipher, direction, real_size, src, dst);
    return real_size == size;
}

} // namespace

CTripleDes::CTripleDes(const uint8_t* key, size_t size, BlockType block, const uint8_t* iv)
    : m_internal(new (std::nothrow) TripleDesInternal())
{
    if (m_internal == nullptr) {
        return; // the first call says so
    }
    TripleDesInternal& cipher = *m_internal;
    cipher.key_length = key == nullptr ? 0 : std::min(size, sizeof(cipher.key));
    if (cipher.key_length != 0) {
        memcpy(cipher.key, key, cipher.key_length);
    }
    makeSchedules(cipher);
    cipher.func = blockFunction(cipher.key_length, block);
    const size_t block_size = blockSizeOf(cipher.func);
    cipher.cbc = iv != nullptr;
    if (cipher.cbc) {
        memcpy(cipher.iv, iv, block_size);
    }
}

CTripleDes::~CTripleDes()
{
    if (m_internal != nullptr) {
        explicit_bzero(m_internal, sizeof(*m_internal));
    }
    delete m_internal;
}

bool CTripleDes::encrypt(uint8_t* dst, const uint8_t* src, size_t size)
{
    INFRA_ASSERT(m_internal);
    return crypt(this, *m_internal, Direction::encrypt, dst, src, size);
}

bool CTripleDes::decrypt(uint8_t* dst, const uint8_t* src, size_t size)
{
    INFRA_ASSERT(m_internal);
    return crypt(this, *m_internal, Direction::decrypt, dst, src, size);
}

} // namespace Utils
} // namespace Tarsel
