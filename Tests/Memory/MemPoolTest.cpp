#include "Memory/MemPool.h"

#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/FailingHeap.h"

using Tarsel::Memory::Detail::CMemPool;
using Tarsel::TestSupport::CFailingHeap;

TEST(MemPool, HandsOutAChunkInAddressOrderThenTheElementFreedLast)
{
    CMemPool pool(3, 10); // 3 bytes are 8: room for a link
    std::vector<char*> elements;
    for (int i = 0; i < 10; ++i) {
        elements.push_back(static_cast<char*>(pool.malloc()));
        EXPECT_EQ(elements[i], elements[0] + 8 * i);
    }
    pool.free(elements[3]);
    pool.free(elements[7]);
    pool.free(nullptr);
    EXPECT_EQ(pool.malloc(), elements[7]);
    EXPECT_EQ(pool.malloc(), elements[3]);

    char* fromSecondChunk = static_cast<char*>(pool.malloc());
    EXPECT_EQ(std::set<char*>(elements.begin(), elements.end()).count(fromSecondChunk), 0u);
}

TEST(MemPool, ElementsOfAnySizeAreWholeAndApart)
{
    for (unsigned int size : {8u, 9u, 12u, 31u, 4096u}) {
        CMemPool pool(size, 7);
        std::vector<unsigned char*> elements;
        for (int i = 0; i < 50; ++i) {
            elements.push_back(static_cast<unsigned char*>(pool.malloc()));
            memset(elements.back(), i, size);
        }
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(elements[i][0], i);
            EXPECT_EQ(elements[i][size - 1], i);
            pool.free(elements[i]);
        }
    }
}

TEST(MemPool, WithoutAChunkThereIsNoElement)
{
    CMemPool beyond32Bits(1u << 20, 1u << 12);
    EXPECT_EQ(beyond32Bits.malloc(), nullptr);
    CMemPool ofNothing(8, 0);
    EXPECT_EQ(ofNothing.malloc(), nullptr);

    CMemPool pool(1000, 20);
    {
        const CFailingHeap failing(20016); // the elements and a header of 16 bytes
        EXPECT_EQ(pool.malloc(), nullptr);
    }
    EXPECT_NE(pool.malloc(), nullptr);
}

TEST(MemPool, ThreadsNeverShareAnElement)
{
    CMemPool pool(64, 16);
    std::vector<std::thread> threads;
    for (int id = 1; id <= 4; ++id) {
        threads.emplace_back([&pool, id] {
            for (int round = 0; round < 5000; ++round) {
                void* mine[3] = {pool.malloc(), pool.malloc(), pool.malloc()};
                for (void* element : mine) {
                    memset(element, id, 64);
                }
                for (void* element : mine) {
                    EXPECT_EQ(static_cast<char*>(element)[63], id);
                    pool.free(element);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
