// Components.cpp: three ways to an object of which one knows the interface only.
//
//     Parrot   made anew for each caller, by a factory in this program
//     Counter  one for each name, shared by all who ask for it, gone with the last of them
//     Duck     from a plug-in, ./libDuck.so, that is opened on first use
//
// Ends with 0 if and only if everything is as it says.

#include <cstdio>
#include <string>

#include <Component/Component.h>

#include "Voice.h"

namespace
{

using namespace Tarsel::Component;

// What this program offers. Whoever asks for it does not see these classes.

class CParrot : public TComponent<IVoice>
{
public:
    explicit CParrot(std::string words) : m_words(std::move(words)) {}
    std::string speak() override { return m_words + ", " + m_words; }

private:
    const std::string m_words;
};

struct CParrots : IVoice::IFactory
{
    const char* clsid() override { return "Parrot"; }
    IVoice* create(const std::string& words) override { return new CParrot(words); }
};
const TRegistered<CParrots> s_parrots;

class CCounter : public TComponent<ICounter>
{
public:
    explicit CCounter(std::string counterName) : name(std::move(counterName)) {}
    int next() override { return ++m_count; }
    const std::string name;

private:
    int m_count = 0;
};

class CCounters : public TSharedFactory<ICounter, const std::string&>
{
public:
    const char* clsid() override { return "Local"; }

protected:
    ICounter* make(const std::string& name) override { return new CCounter(name); }
    bool isFor(const std::string& name, ICounter& counter) override
    {
        return static_cast<CCounter&>(counter).name == name;
    }
};
const TRegistered<CCounters> s_counters;

// Who uses it.

int s_surprises = 0;

void expect(bool asItShouldBe, const char* what)
{
    std::printf("%s%s\n", asItShouldBe ? "" : "NOT: ", what);
    s_surprises += asItShouldBe ? 0 : 1;
}

void makeParrots()
{
    const auto polly = createComponentObject<IVoice>("Parrot", ServerInfo::none, "hello");
    const auto jack = createComponentObject<IVoice>("Parrot", ServerInfo::none, "ahoy");
    expect(polly && polly->speak() == "hello, hello", "a parrot says what it was taught");
    expect(jack && jack->speak() == "ahoy, ahoy", "another one is another one");
    expect(!createComponentObject<IVoice>("Cat", ServerInfo::none, "meow"), "there are no cats");
    for (const std::string& name : ClassID::getClassIDs("Voice")) {
        std::printf("    voices of class %s\n", name.c_str());
    }
}

void shareCounters()
{
    TComPtr<ICounter> mine = getComponentInstance<ICounter>(ComSelChannelInfo::local, "tickets");
    TComPtr<ICounter> yours = getComponentInstance<ICounter>(ComSelChannelInfo::local, "tickets");
    expect(mine == yours && mine->next() == 1 && yours->next() == 2, "tickets are counted once");
    TComPtr<ICounter> other = getComponentInstance<ICounter>(ComSelChannelInfo::local, "guests");
    expect(other != mine && other->next() == 1, "guests are counted apart");
    mine.reset();
    yours.reset();
    mine = getComponentInstance<ICounter>(ComSelChannelInfo::local, "tickets");
    expect(mine->next() == 1, "when nobody holds a counter, the next one begins anew");
}

TComPtr<IVoice> duck(IUnknown* object)
{
    return TComPtr<IVoice>(dynamic_cast<IVoice*>(object), nullptr, 0);
}

void borrowDucks()
{
    const TComPtr<IVoice> own = duck(createComponentObject("Duck", nullptr));
    expect(own && own->speak() == "quack", "a duck comes out of a library");
    const TComPtr<IVoice> shared = duck(getComponentInstance("Duck", nullptr));
    const TComPtr<IVoice> again = duck(getComponentInstance("Duck", nullptr));
    expect(shared && shared == again && shared != own, "there is one for all who want to share it");

    ServerInfo pond = {};
    pond.serverAddress = "pond";
    const TComPtr<IVoice> wild = duck(getComponentInstance("Duck", &pond));
    expect(wild && wild != shared && wild->speak() == "QUACK", "and one for each place");
    expect(createComponentObject("Swan", nullptr) == nullptr, "no library, no swan");
}

} // namespace

int main()
{
    makeParrots();
    shareCounters();
    borrowDucks();
    return s_surprises == 0 ? 0 : 1;
}
