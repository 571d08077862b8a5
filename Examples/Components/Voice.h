#ifndef INFRA_EXAMPLES_COMPONENTS_VOICE_H
#define INFRA_EXAMPLES_COMPONENTS_VOICE_H

// The interface that the program and its plug-in share: all that either knows of the other.

#include <string>

#include <Component/Component.h>

/// Something that can speak.
struct IVoice : Tarsel::Component::IUnknown
{
    virtual std::string speak() = 0;

    /// Makes voices; the class says of whom.
    struct IFactory : Tarsel::Component::IFactoryUnknown
    {
        static const char* iid() { return "Voice"; }
        virtual IVoice* create(const std::string& words) = 0;
    };
};

/// A counter that everybody who asks for the same name shares.
struct ICounter : Tarsel::Component::IUnknown
{
    virtual int next() = 0;

    struct IFactory : Tarsel::Component::IFactoryUnknown
    {
        static const char* iid() { return "Counter"; }
        virtual ICounter* instance(const std::string& name) = 0;
    };
};

#endif
