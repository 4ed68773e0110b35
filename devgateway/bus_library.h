// What the versions 1 and 2 of sdbus-c++ name differently, under one name for the modules. Debian
// 12 has the one, Debian 13 the other.
//
// Threads  as the library's own calls: the thread of the connection.
// Errors   sdbus::Error, as the library throws it.
#pragma once

#include <chrono>
#include <sdbus-c++/sdbus-c++.h>
#include <string>
#include <utility>
#include <vector>

namespace bus_library {

#if __has_include(<sdbus-c++/VTableItems.h>)

using ServiceName = sdbus::ServiceName;
using InterfaceName = sdbus::InterfaceName;
using MemberName = sdbus::MemberName;

template <class Handler>
[[nodiscard]] sdbus::Slot add_match(sdbus::IConnection &bus, const char *rule, Handler handler)
{
    return bus.addMatch(rule, std::move(handler), sdbus::return_slot);
}

// False when nothing more is there.
inline bool handle_one(sdbus::IConnection &bus)
{
    return bus.processPendingEvent();
}

// Answered is called without arguments, for an answer, an error and when the time is over.
template <class Answered>
void call_async(sdbus::IProxy &proxy, const sdbus::MethodCall &call, Answered answered,
                std::chrono::microseconds timeout)
{
    proxy.callMethodAsync(
        call, [answered](auto &&...) { answered(); }, timeout);
}

// All arguments have been read.
inline bool is_at_end(const sdbus::Message &message)
{
    return message.isAtEnd(true);
}

// Methods and signals of an interface are offered between createObject and publish.
template <class Function>
void offer_method(sdbus::IObject &object, const char *interface, const char *member,
                  const std::vector<std::string> &inputs, const std::vector<std::string> &outputs,
                  Function function)
{
    object
        .addVTable(sdbus::registerMethod(member)
                       .withInputParamNames(inputs)
                       .withOutputParamNames(outputs)
                       .implementedAs(std::move(function)))
        .forInterface(interface);
}

template <class... Arguments>
void offer_signal(sdbus::IObject &object, const char *interface, const char *member,
                  std::vector<std::string> arguments)
{
    object
        .addVTable(sdbus::registerSignal(member).withParameters<Arguments...>(std::move(arguments)))
        .forInterface(interface);
}

inline void publish(sdbus::IObject & /*object*/) {} // done with each of its members

#else

using ServiceName = std::string;
using InterfaceName = std::string;
using MemberName = std::string;

template <class Handler>
[[nodiscard]] sdbus::Slot add_match(sdbus::IConnection &bus, const char *rule, Handler handler)
{
    return bus.addMatch(rule, std::move(handler));
}

inline bool handle_one(sdbus::IConnection &bus)
{
    return bus.processPendingRequest();
}

template <class Answered>
void call_async(sdbus::IProxy &proxy, const sdbus::MethodCall &call, Answered answered,
                std::chrono::microseconds timeout)
{
    proxy.callMethod(
        call, [answered](auto &&...) { answered(); }, timeout);
}

inline bool is_at_end(const sdbus::Message &message)
{
    std::string type;
    std::string contents;
    message.peekType(type, contents);
    return type == std::string(1, '\0');
}

template <class Function>
void offer_method(sdbus::IObject &object, const char *interface, const char *member,
                  const std::vector<std::string> &inputs, const std::vector<std::string> &outputs,
                  Function function)
{
    object.registerMethod(member)
        .onInterface(interface)
        .withInputParamNames(inputs)
        .withOutputParamNames(outputs)
        .implementedAs(std::move(function));
}

template <class... Arguments>
void offer_signal(sdbus::IObject &object, const char *interface, const char *member,
                  std::vector<std::string> arguments)
{
    object.registerSignal(member).onInterface(interface).template withParameters<Arguments...>(
        std::move(arguments));
}

inline void publish(sdbus::IObject &object)
{
    object.finishRegistration();
}

#endif

} // namespace bus_library
