// Delegates.

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Infra/Infra3/Function.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

struct Left
{
    virtual ~Left() = default;
    virtual int virtualOne(int x) { return x + 1; }
    int inherited(int x) { return base + x; }
    int base = 100;
};

struct Right
{
    virtual ~Right() = default;
    virtual int virtualTwo(int x) { return x + 2; }
    int fromRight(int x) { return right + x; }
    int right = 200;
};

struct Both : Left, Right
{
    int virtualOne(int x) override { return x + 10; }
    int virtualTwo(int x) override { return x + 20; }
    int constant(int x) const { return x + 30; }
    int reuseNumber(int) { return static_cast<int>(getCurrentFunctionReuse()); }
    int overloaded(int x) { return x; }
};

int twice(int x)
{
    return 2 * x;
}

int thrice(int x)
{
    return 3 * x;
}

typedef TFunction1<int, int> Function;

TEST(FunctionTest, CallsWhatItHolds)
{
    Both both;
    const Both& constant = both;
    EXPECT_EQ(Function(twice)(4), 8);
    EXPECT_EQ(Function(&thrice)(4), 12);
    EXPECT_EQ(Function([](int x) { return -x; })(4), -4);
    EXPECT_EQ(Function(&Both::virtualOne, &both)(4), 14);
    EXPECT_EQ(Function(&Left::virtualOne, &both)(4), 14);
    EXPECT_EQ(Function(&Right::virtualTwo, &both)(4), 24);
    EXPECT_EQ(Function(&Right::fromRight, &both)(4), 204);
    EXPECT_EQ(Function(&Both::inherited, &both)(4), 104);
    EXPECT_EQ(Function(&Both::fromRight, &both)(4), 204);
    EXPECT_EQ(Function(&Both::constant, &constant)(4), 34);
}

TEST(FunctionTest, EmptinessKindAndObject)
{
    Both both;
    Function empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(Function(nullptr).empty());
    EXPECT_EQ(empty.getObject(), nullptr);
    EXPECT_EQ(empty.getObjectType(), nullptr);
    EXPECT_EQ(Function(twice).getObject(), nullptr);
    EXPECT_EQ(Function(twice).getObjectType(), nullptr);
    Function member(&Both::overloaded, &both);
    EXPECT_FALSE(member.empty());
    EXPECT_FALSE(member.allReuse());
    EXPECT_EQ(member.getObject(), &both);
    EXPECT_STREQ(member.getObjectType(), typeid(const Both*).name());
    EXPECT_TRUE(Function(&Both::overloaded, &both, typeAllReuse).allReuse());
    member = empty;
    EXPECT_TRUE(member.empty());
    EXPECT_EQ(sizeof(Function), 40U);
}

TEST(FunctionTest, EqualityTable)
{
    Both one;
    Both two;
    const Function all(&Both::overloaded, &one, typeAllReuse);
    struct Case
    {
        const char* name;
        Function left;
        Function right;
        bool equal;
    };
    const Case cases[] = {
        {"two empty ones", {}, {}, true},
        {"empty and full", {}, twice, false},
        {"same function", twice, twice, true},
        {"other function", twice, thrice, false},
        {"same member", {&Both::overloaded, &one}, {&Both::overloaded, &one}, true},
        {"other object", {&Both::overloaded, &one}, {&Both::overloaded, &two}, false},
        {"other member", {&Both::overloaded, &one}, {&Both::reuseNumber, &one}, false},
        {"virtual members", {&Both::virtualOne, &one}, {&Both::virtualTwo, &one}, false},
        {"function and member", twice, {&Both::overloaded, &one}, false},
        {"same reuse", {&Both::overloaded, &one, 17}, {&Both::overloaded, &one, 17}, true},
        {"other reuse", {&Both::overloaded, &one, 17}, {&Both::overloaded, &one, 18}, false},
        {"reuse and plain", {&Both::overloaded, &one, 17}, {&Both::overloaded, &one}, false},
        {"too small a number", {&Both::overloaded, &one, 15}, {&Both::overloaded, &one}, true},
        {"all and one", all, {&Both::overloaded, &one, 17}, true},
        {"one and all", {&Both::overloaded, &one, 16}, all, true},
        {"all and plain", all, {&Both::overloaded, &one}, false},
        {"all of another object", all, {&Both::overloaded, &two, 17}, false},
    };
    for (const Case& each : cases) {
        EXPECT_EQ(each.left == each.right, each.equal) << each.name;
        EXPECT_EQ(each.left != each.right, !each.equal) << each.name;
    }
}

TEST(FunctionTest, ReuseNumbersReachTheMemberOnItsThread)
{
    Both both;
    EXPECT_EQ(Function(&Both::reuseNumber, &both, 16)(0), 16);
    EXPECT_EQ(Function(&Both::reuseNumber, &both, 0xFFFFFFFE)(0), -2);
    EXPECT_EQ(Function(&Both::reuseNumber, &both)(0), -2); // the number last set
    std::thread([&] {
        EXPECT_EQ(getCurrentFunctionReuse(), 0U);
        EXPECT_EQ(Function(&Both::reuseNumber, &both)(0), 0);
    }).join();
}

struct CountsCopies
{
    CountsCopies() = default;
    CountsCopies(const CountsCopies& other) : copies(other.copies + 1) {}
    CountsCopies(CountsCopies&& other) noexcept : copies(other.copies) {}
    int copies = 0;
};

TEST(FunctionTest, ArgumentsArePassedOnWithoutFurtherCopies)
{
    const TFunction1<int, CountsCopies> byValue([](CountsCopies each) { return each.copies; });
    const CountsCopies original;
    EXPECT_EQ(byValue(original), 1);
    const TFunction2<void, std::string&, const std::string&> byReference(
        [](std::string& target, const std::string& text) { target += text; });
    std::string target = "a";
    byReference(target, "b");
    EXPECT_EQ(target, "ab");
    const TFunction8<int, int, int, int, int, int, int, int, int> sum(
        [](int a, int b, int c, int d, int e, int f, int g, int h) {
            return a + b + c + d + e + f + g + h;
        });
    EXPECT_EQ(sum(1, 2, 3, 4, 5, 6, 7, 8), 36);
    const TFunction0<std::string> none([] { return std::string("none"); });
    EXPECT_EQ(none(), "none");
}

} // namespace
} // namespace Infra
} // namespace Tarsel
