// Strings: the fixed layouts and exact capacities, every operation against the standard string, the
// ways to fail.

#include "Infra/Infra3/String.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace
{

using Tarsel::Infra::AllocatorStringStorage;
using Tarsel::Infra::CMiniString;
using Tarsel::Infra::CString;
using Tarsel::Infra::CString2;
using Tarsel::Infra::flex_string;
using Tarsel::Infra::MiniStringStorage;
using Tarsel::Infra::SmallStringOpt;

static_assert(std::is_same_v<CString2, std::string>);
static_assert(std::is_nothrow_move_constructible_v<CString>);
static_assert(!std::is_constructible_v<CString, int>);

constinit CString madeBeforeMain;

/// The bytes of a string object, for what the layout promises.
template <typename S>
struct ObjectView
{
    explicit ObjectView(const S& text)
    {
        memcpy(bytes, static_cast<const void*>(&text), sizeof(S));
    }

    int marker() const { return static_cast<unsigned char>(bytes[31]); }
    char* const* block() const
    {
        char* const* head;
        memcpy(&head, bytes, sizeof(head));
        return head;
    }

    char bytes[sizeof(S)];
};

template <typename S>
bool isInside(const S& text)
{
    const char* const object = reinterpret_cast<const char*>(&text);
    return text.data() >= object && text.data() < object + sizeof(S);
}

std::string sample(size_t length, char first = 'a')
{
    std::string text(length, ' ');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(first + i % 23);
    }
    return text;
}

TEST(CStringLayout, UpTo31CharactersLieInTheObjectBeforeTheMarker)
{
    const struct
    {
        size_t length;
        int marker;
    } cases[] = {{0, 31}, {1, 30}, {16, 15}, {30, 1}, {31, 0}};
    for (const auto& c : cases) {
        const std::string text = sample(c.length);
        const CString string(text);
        const ObjectView<CString> object(string);
        EXPECT_TRUE(isInside(string)) << c.length;
        EXPECT_EQ(object.marker(), c.marker);
        EXPECT_STREQ(object.bytes, text.c_str());
        EXPECT_EQ(string.capacity(), 31u);
    }
    EXPECT_EQ(ObjectView<CString>(madeBeforeMain).marker(), 31);
}

TEST(CStringLayout, OneMoreMovesToABlockOfExactlyThatCapacity)
{
    CString string(sample(31));
    string += 'X';
    const ObjectView<CString> object(string);
    ASSERT_EQ(object.marker(), 32);
    char* const characters = const_cast<char*>(string.data());
    EXPECT_EQ(reinterpret_cast<const char*>(object.block()) + 16, characters);
    EXPECT_EQ(object.block()[0], characters + 32) << "one past the last character";
    EXPECT_EQ(object.block()[1], characters + 32) << "one past the capacity";
    EXPECT_EQ(std::string(string.c_str()), sample(31) + 'X');
}

TEST(CStringLayout, CapacityIsExactAtEachStepAndLargeStaysLarge)
{
    const std::string text = sample(9000); // past the size from which the system moves blocks
    CString string;
    for (size_t length = 1; length <= text.size(); ++length) {
        string.push_back(text[length - 1]);
        ASSERT_EQ(string.capacity(), length <= 31 ? 31u : length);
        ASSERT_EQ(string.c_str()[length], '\0');
    }
    EXPECT_EQ(string, text);
    string.reserve(9001);
    EXPECT_EQ(string.capacity(), 9001u);
    string = "short";
    string.erase(1);
    string.clear();
    EXPECT_EQ(ObjectView<CString>(string).marker(), 32);
    EXPECT_EQ(string.capacity(), 9001u);
    EXPECT_STREQ(string.c_str(), "");
    string.shrink_to_fit();
    EXPECT_EQ(ObjectView<CString>(string).marker(), 32);
    EXPECT_EQ(string.capacity(), 0u) << "on the shared empty block";
    string = "ab";
    EXPECT_EQ(ObjectView<CString>(string).marker(), 32);
    EXPECT_EQ(string.capacity(), 2u);
    string = sample(40);
    EXPECT_EQ(string, sample(40));
}

TEST(CStringLayout, NoAssignmentMakesALargeStringSmallAgain)
{
    const std::vector<char> letters = {'a', 'b'};
    const CString ab("ab");
    const struct
    {
        const char* name;
        std::function<void(CString&)> assign;
    } cases[] = {
        {"text", [](CString& string) { string = "ab"; }},
        {"counted text", [](CString& string) { string.assign("abc", 2); }},
        {"string", [&](CString& string) { string = ab; }},
        {"iterators", [&](CString& string) { string.assign(letters.begin(), letters.end()); }},
        {"own pointers", [&](CString& string) { string.assign(ab.begin(), ab.end()); }},
        {"list",
         [](CString& string) {
             string = {'a', 'b'};
         }},
        {"view", [](CString& string) { string = std::string_view("ab"); }},
        {"fill", [](CString& string) { string.assign(1, 'a').append(1, 'b'); }},
    };
    for (const auto& c : cases) {
        CString roomy(sample(40));
        c.assign(roomy);
        EXPECT_EQ(roomy, "ab") << c.name;
        EXPECT_EQ(ObjectView<CString>(roomy).marker(), 32) << c.name;
        EXPECT_EQ(roomy.capacity(), 40u) << c.name;
        CString tight(sample(40));
        tight.clear();
        tight.shrink_to_fit();
        c.assign(tight);
        EXPECT_EQ(tight, "ab") << c.name;
        EXPECT_EQ(ObjectView<CString>(tight).marker(), 32) << c.name;
        EXPECT_EQ(tight.capacity(), 2u) << c.name;
    }
    CString own(sample(40));
    own.assign(own.begin() + 1, own.begin() + 3);
    EXPECT_EQ(own, "bc");
    own = CString("moved");
    EXPECT_EQ(own, "moved");
    EXPECT_EQ(ObjectView<CString>(own).marker(), 32);
}

TEST(CStringLayout, CopiesAreFreshAndMovesAndSwapsExchangeForms)
{
    CString large(sample(50));
    large.resize(3);
    const CString copy(large);
    EXPECT_TRUE(isInside(copy)) << "a short copy of a large string is small";
    EXPECT_EQ(copy, "abc");

    CString small("tiny");
    const char* const block = large.data();
    swap(small, large);
    EXPECT_EQ(small.data(), block);
    EXPECT_EQ(small, "abc");
    EXPECT_TRUE(isInside(large));
    EXPECT_EQ(large, "tiny");

    CString moved(std::move(small));
    EXPECT_EQ(moved.data(), block);
    EXPECT_TRUE(small.empty());
    large = std::move(moved);
    EXPECT_EQ(large.data(), block);
    EXPECT_EQ(CString(large, std::allocator<char>()), "abc");
    EXPECT_EQ(CString(CString(sample(50)), std::allocator<char>()), sample(50));
    CString& same = large;
    large = std::move(same);
    large = same;
    EXPECT_EQ(large, "abc");
}

TEST(CMiniStringLayout, IsNullWhileEmpty)
{
    const auto isNull = [](const CMiniString& text) {
        return ObjectView<CMiniString>(text).block() == nullptr;
    };
    CMiniString string;
    EXPECT_TRUE(isNull(string));
    EXPECT_STREQ(string.c_str(), "");
    EXPECT_TRUE(isNull(CMiniString("")) && isNull(CMiniString(string)));
    string = "realm";
    EXPECT_EQ(ObjectView<CMiniString>(string).block()[0], string.end());
    EXPECT_EQ(string.capacity(), 5u);
    string.clear();
    EXPECT_TRUE(isNull(string));
    string.reserve(10);
    EXPECT_EQ(string.capacity(), 10u);
    string.append("0123456789");
    EXPECT_EQ(string.capacity(), 10u);
}

/// An allocator of the application's own; counts what is out.
template <typename T>
struct CountingAllocator
{
    typedef T value_type;
    CountingAllocator() = default;
    template <typename U>
    CountingAllocator(const CountingAllocator<U>&)
    {}
    T* allocate(size_t count)
    {
        out += static_cast<long>(count * sizeof(T));
        return std::allocator<T>().allocate(count);
    }
    void deallocate(T* memory, size_t count)
    {
        out -= static_cast<long>(count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }
    bool operator==(const CountingAllocator&) const { return true; }
    static inline long out = 0;
};
typedef flex_string<char, std::char_traits<char>, CountingAllocator<char>> CountedString;

/// Does the same to one of our strings and to a standard one, many times over.
template <typename S>
class StringModel : public testing::Test
{
protected:
    size_t below(size_t bound)
    {
        return std::uniform_int_distribution<size_t>(0, bound - 1)(m_random);
    }
    size_t position() { return below(m_model.size() + 1); }
    char character() { return "ab\xff"[below(3)]; }
    std::string text()
    {
        std::string text(below(40), ' ');
        for (char& c : text) {
            c = character();
        }
        return text;
    }

    void changeOnce()
    {
        const size_t pos = position();
        const size_t count = below(20);
        const std::string other = text();
        const S otherString(other);
        const size_t from = below(other.size() + 1);
        const char c = character();
        switch (below(26)) {
        case 0:
            m_string.append(other), m_model.append(other);
            break;
        case 1:
            m_string.append(otherString, from, count), m_model.append(other, from, count);
            break;
        case 2:
            m_string += other.c_str(), m_model += other.c_str();
            break;
        case 3:
            m_string.append(count, c), m_model.append(count, c);
            break;
        case 4:
            m_string.push_back(c), m_model.push_back(c);
            break;
        case 5:
            m_string.insert(pos, otherString), m_model.insert(pos, other);
            break;
        case 6:
            m_string.insert(pos, count, c), m_model.insert(pos, count, c);
            break;
        case 7:
            m_string.insert(m_string.begin() + pos, c), m_model.insert(m_model.begin() + pos, c);
            break;
        case 8:
            m_string.erase(pos, count), m_model.erase(pos, count);
            break;
        case 9:
            m_string.erase(m_string.begin() + pos, m_string.end()), m_model.erase(pos);
            break;
        case 10:
            m_string.replace(pos, count, otherString), m_model.replace(pos, count, other);
            break;
        case 11:
            m_string.replace(pos, count, from, c), m_model.replace(pos, count, from, c);
            break;
        case 12:
            m_string.assign(otherString, from, count), m_model.assign(other, from, count);
            break;
        case 13:
            m_string = otherString, m_model = other;
            break;
        case 14:
            m_string.resize(count, c), m_model.resize(count, c);
            break;
        case 15:
            m_string = m_string.substr(pos, count), m_model = m_model.substr(pos, count);
            break;
        case 16:
            m_string = otherString + m_string, m_model = other + m_model;
            break;
        case 17:
            m_string = S(m_string) + c + other.c_str(), m_model = m_model + c + other.c_str();
            break;
        case 18:
            m_string.shrink_to_fit();
            break;
        case 19:
            m_string.reserve(m_model.size() + count);
            break;
        // The string as its own source, in place and moving.
        case 20:
            m_string.append(m_string), m_model.append(m_model);
            break;
        case 21:
            m_string.append(m_string.data() + pos, m_string.size() - pos),
                m_model.append(m_model, pos, std::string::npos);
            break;
        case 22:
            m_string.insert(pos, m_string), m_model.insert(pos, std::string(m_model));
            break;
        case 23:
            m_string.replace(pos, count, m_string.data(), pos),
                m_model.replace(pos, count, std::string(m_model, 0, pos));
            break;
        case 24:
            m_string.assign(m_string, pos, count), m_model.assign(std::string(m_model, pos, count));
            break;
        default:
            m_string = S(other.begin(), other.end()), m_model = other;
            break;
        }
        if (m_model.size() > 70) {
            m_string.erase(from), m_model.erase(from);
        }
    }

    void expectSame()
    {
        ASSERT_EQ(std::string(m_string.begin(), m_string.end()), m_model);
        ASSERT_EQ(m_string.c_str()[m_model.size()], '\0');
        ASSERT_GE(m_string.capacity(), m_string.size());
        ASSERT_TRUE(m_string == m_model && !(m_string < m_model));
    }

    void searchAlike()
    {
        const std::string what = text().substr(0, below(4));
        const S whatString(what);
        const size_t pos = below(2) == 0 ? std::string::npos : below(80);
        ASSERT_EQ(m_string.find(whatString, pos), m_model.find(what, pos));
        ASSERT_EQ(m_string.rfind(what.c_str(), pos), m_model.rfind(what.c_str(), pos));
        ASSERT_EQ(m_string.find_first_of(what, pos % 80), m_model.find_first_of(what, pos % 80));
        ASSERT_EQ(m_string.find_last_of(whatString, pos), m_model.find_last_of(what, pos));
        ASSERT_EQ(m_string.find_first_not_of(what, pos % 80),
                  m_model.find_first_not_of(what, pos % 80));
        ASSERT_EQ(m_string.find_last_not_of('a', pos), m_model.find_last_not_of('a', pos));
        const int order = m_model.compare(what);
        ASSERT_EQ(m_string.compare(whatString) < 0, order < 0);
        ASSERT_EQ(m_string > what, order > 0);
    }

    std::mt19937 m_random{20191108};
    S m_string;
    std::string m_model;
};

typedef testing::Types<CString, CMiniString, CountedString,
                       flex_string<char, std::char_traits<char>, std::allocator<char>,
                                   SmallStringOpt<AllocatorStringStorage<char>, 15>>>
    Strings;
TYPED_TEST_SUITE(StringModel, Strings);

TYPED_TEST(StringModel, EveryOperationGivesWhatTheStandardStringGives)
{
    for (int step = 0; step < 20000; ++step) {
        this->changeOnce();
        this->expectSame();
        this->searchAlike();
        if (testing::Test::HasFatalFailure()) {
            FAIL() << "at step " << step;
        }
    }
}

TEST(CountedString, GivesBackWhatItTook)
{
    {
        CountedString text(sample(100));
        EXPECT_GE(CountingAllocator<Tarsel::Infra::Detail::StringBlock<char>>::out, 124);
        text += sample(1000);
        CountedString moved(std::move(text));
        text = "again";
    }
    EXPECT_EQ(CountingAllocator<Tarsel::Infra::Detail::StringBlock<char>>::out, 0);
}

TEST(CString, ComparesEachByteAsUnsignedAtEveryLength)
{
    for (size_t length = 1; length <= 70; ++length) {
        for (size_t at = 0; at < length; ++at) {
            CString low(sample(length));
            CString high(low);
            low[at] = '\x01';
            high[at] = '\xfe';
            ASSERT_NE(low, high) << length << ", " << at;
            ASSERT_LT(low.compare(high), 0) << length << ", " << at;
            ASSERT_GT(high.compare(low), 0) << length << ", " << at;
            ASSERT_LT(low, high);
            ASSERT_LT(CString(low, 0, at), low) << "a beginning comes first";
        }
    }
}

TEST(CString, CopiesAndAppendsItselfAtEveryLength)
{
    for (size_t length = 0; length <= 300; ++length) {
        const std::string text = sample(length);
        CString string(text);
        ASSERT_EQ(std::string(CString(string).c_str()), text);
        string.append(string).insert(length, "|");
        ASSERT_EQ(std::string(string.c_str()), text + "|" + text);
        string.assign(string.data() + length, length + 1);
        ASSERT_EQ(std::string(string.c_str()), "|" + text);
    }
}

TEST(CString, MeetsEveryOtherKindOfText)
{
    const CString string("abc");
    const std::string standard("abc");
    EXPECT_TRUE(string == standard && standard == string && string == std::string_view("abc"));
    EXPECT_TRUE("abc" == string && string != "abd" && "abb" < string && string >= "abc");
    EXPECT_TRUE(string == CMiniString("abc").c_str());
    EXPECT_EQ(std::string(string), "abc");
    EXPECT_EQ("<" + string + '>' + standard, "<abc>abc");
    EXPECT_EQ('<' + string + std::string_view("|"), "<abc|");
    EXPECT_EQ(std::hash<CString>()(string), std::hash<std::string>()(standard));
    EXPECT_EQ((std::unordered_set<CString>{"a", "b", "a"}.size()), 2u);

    CString built({'x', 'y'});
    built = {'1', '2', '3'};
    built.insert(0, 1, '0').insert(built.end(), {'4', '5'});
    built.erase(0, 0).replace(0, 0, "-");
    EXPECT_EQ(built, "-012345");
    std::istringstream words("11 22");
    built.assign(std::istreambuf_iterator<char>(words), std::istreambuf_iterator<char>());
    EXPECT_EQ(built, "11 22");
    EXPECT_EQ(*built.rbegin(), '2');
    EXPECT_TRUE(built.starts_with("11") && built.ends_with('2') && !built.starts_with("11 22 "));
    char target[4] = "???";
    EXPECT_EQ(built.copy(target, 2, 3), 2u);
    EXPECT_STREQ(target, "22?");
}

TEST(CString, GoesThroughStreams)
{
    std::ostringstream out;
    out.width(6);
    out << CString("ab") << '|' << CMiniString();
    EXPECT_EQ(out.str(), "    ab|");

    std::istringstream in("  word rest of it\n" + sample(60) + ";tail");
    CString text("before");
    in >> text;
    EXPECT_EQ(text, "word");
    EXPECT_TRUE(getline(in, text));
    EXPECT_EQ(text, " rest of it");
    EXPECT_TRUE(getline(in, text, ';'));
    EXPECT_EQ(text, sample(60));
    EXPECT_TRUE(in >> text);
    EXPECT_EQ(text, "tail");
    EXPECT_FALSE(in >> text);
}

TEST(CString, NullIsTheEmptyText)
{
    const char* const null = nullptr;
    CString string(null);
    EXPECT_TRUE(string.empty() && string == null && CString(null, 5).empty());
    string = "abc";
    string.append(null).append(null, 3).insert(1, null).replace(1, 1, null);
    EXPECT_EQ(string, "ac");
    EXPECT_GT(string.compare(null), 0);
    EXPECT_EQ(string.find(null), 0u);
    EXPECT_EQ(string + null, "ac");
    string = null;
    EXPECT_STREQ(string.c_str(), "");
    EXPECT_TRUE(string == nullptr && CMiniString(nullptr) == "");
}

TEST(CString, RefusesWhatTheStandardRefusesAndStaysAsItWas)
{
    CString string("abc");
    const CString& constant = string;
    EXPECT_THROW(string.at(3), std::out_of_range);
    EXPECT_THROW(constant.at(3), std::out_of_range);
    EXPECT_THROW(string.substr(4), std::out_of_range);
    EXPECT_THROW(string.insert(4, "x"), std::out_of_range);
    EXPECT_THROW(string.erase(4), std::out_of_range);
    EXPECT_THROW(string.replace(4, 0, "x"), std::out_of_range);
    EXPECT_THROW(string.append(std::string("xyz"), 4), std::out_of_range);
    EXPECT_THROW(string.compare(4, 1, "x"), std::out_of_range);
    EXPECT_THROW(CString(string, 4), std::out_of_range);
    EXPECT_THROW(string.reserve(CString::max_size() + 1), std::length_error);
    EXPECT_THROW(string.append(CString::max_size(), 'x'), std::length_error);
    EXPECT_THROW(string.append("x", SIZE_MAX), std::length_error);
    EXPECT_EQ(string, "abc");
    EXPECT_EQ(string.substr(3), "");
}

TEST(CString, OneStringMayBeReadByManyThreads)
{
    const CString small("shared"), large(sample(90));
    std::vector<std::thread> readers;
    std::atomic<int> seen{0};
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            for (int round = 0; round < 1000; ++round) {
                const CString copy(large);
                seen += strlen(small.c_str()) == 6 && copy == large && CMiniString().empty();
            }
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(seen, 4000);
}

/// Opens what only a storage's own code may reach.
struct OpenSmall : SmallStringOpt<AllocatorStringStorage<char>, 31>
{
    using SmallStringOpt::GetStorage;
};
struct OpenMini : MiniStringStorage<char>
{
    using MiniStringStorage::MiniStringStorage;
    void breakEnd() { pData_->pEnd_ = pData_->buffer_ - 1; }
};

TEST(StringDeathTest, ADamagedStringEndsTheProcessInEveryBuild)
{
    CString damaged("abc");
    reinterpret_cast<unsigned char*>(&damaged)[31] = 33;
    EXPECT_DEATH((void)damaged.size(),
                 "!Small\\(\\) \\|\\| maxSmallString >= buf_\\[maxSmallString\\]");
    reinterpret_cast<unsigned char*>(&damaged)[31] = 28;

    OpenSmall small;
    EXPECT_DEATH(small.GetStorage(), "buf_\\[maxSmallString\\] == magic");
    EXPECT_DEATH(AllocatorStringStorage<char>("abc", 3, 2), "size <= cap");
    AllocatorStringStorage<char> storage("abc", 3);
    EXPECT_DEATH(storage.append(storage.data() + 1, 2),
                 "!\\(le\\(begin\\(\\), &\\*b\\) && le\\(&\\*b, end\\(\\)\\)\\)");
    EXPECT_DEATH(
        {
            OpenMini mini("abc", 3);
            mini.breakEnd();
        },
        "begin\\(\\) <= end\\(\\)");
}

} // namespace
