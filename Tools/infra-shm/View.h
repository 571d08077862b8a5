#ifndef INFRA_TOOLS_SHM_VIEW_H
#define INFRA_TOOLS_SHM_VIEW_H

// What a copy of a pool says, as values. Links that lead nowhere end a list here; that they do is for
// the check to say.

#include <cstdint>
#include <string>
#include <vector>

#include "Snapshot.h"

struct Holder
{
    pid_t pid;
    Life life;
    std::string name; ///< of a living process
    uint32_t references;
};

struct Block
{
    uint32_t page; ///< the first
    uint32_t pages;
    std::vector<Holder> holders;
    uint32_t handOvers;   ///< on their way
    uint32_t expireCount; ///< cleaning passes until they expire
};

struct SmallPage
{
    uint32_t page;
    uint32_t objects; ///< room for
    uint32_t used;
};

/// All blocks of 2^order pages.
struct OrderView
{
    std::vector<uint32_t> freeBlocks; ///< their first pages
    uint32_t taken;
};

struct PoolView
{
    BuddyConfig config;
    uint32_t pageNum;
    uint32_t freePages;
    std::vector<OrderView> orders;
    std::vector<Block> blocks; ///< by their first page
    std::vector<SmallPage> smallPages;
    /// One character a page, as pictureLegend says.
    std::string picture;
};

constexpr const char* pictureLegend =
    "  0-9A-V  a free block of that order    .  its further pages\n"
    "  #  held    x  held by the dead only    >  held by nobody, on its way\n"
    "  o  small objects    ?  nobody's    :  several of these";

PoolView viewOf(const CSnapshot& snapshot);

/// The picture in at most `most` characters: each stands for the same number of pages, a power of
/// two, which is `*group` then.
std::string shrinkPicture(const std::string& picture, size_t most, size_t* group);

#endif
