/// \file
/// Questions to services of this machine over its system bus (D-Bus).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

struct sd_bus;
struct sd_bus_message;

namespace QOR {

/// A service did not do what it was asked, or the bus did not bring it there.
class SystemBusFailure : public std::runtime_error {
public:
    /// \param name of the error, as D-Bus has it; empty for what no service said
    SystemBusFailure(const std::string& text, std::string name) : runtime_error(text), m_name(std::move(name)) {}
    const std::string& name() const noexcept { return m_name; }
    /// Nobody has the name that was asked for, and nobody was to be started for it.
    bool isNobodyThere() const noexcept;
    /// It does not know what it was asked about.
    bool isUnknown() const noexcept;

private:
    std::string m_name;
};

/// What was answered, read from its beginning on. Methods throw SystemBusFailure where it is something else.
class SystemBusAnswer {
public:
    explicit SystemBusAnswer(sd_bus_message* message);

    /// Into an array ('a'), a structure ('r'), an entry of a dictionary ('e') or a value of any type ('v').
    /// \returns false behind the last one
    bool enter(char type, const char* contents);
    void exit();
    std::string text(char type = 's');  ///< also of an object's path: 'o'
    std::int32_t number();
    std::uint64_t count();  ///< without a sign, of 64 bits
    std::string bytes();
    void skip(const char* types);
    /// Of what comes next: "s". Empty at the end.
    std::string type();

private:
    std::unique_ptr<sd_bus_message, void (*)(sd_bus_message*)> m_message;
};

/// The connection. Used by one thread. An answer is waited for some seconds, and no longer than its owner wants.
class SystemBus {
public:
    struct Question {
        const char* service;
        const char* path;
        const char* interface;
        const char* member;
        std::vector<std::string> texts{};  ///< what is given with it
        bool mayStart = false;             ///< a service that does not run is started
    };

    /// \returns null when nobody listens there \throws SystemBusFailure
    static std::unique_ptr<SystemBus> open(const std::filesystem::path& socket, std::function<bool()> isStopping);
    SystemBus(const SystemBus&) = delete;
    SystemBus& operator=(const SystemBus&) = delete;

    /// \throws SystemBusFailure
    SystemBusAnswer ask(const Question& question);

private:
    using Bus = std::unique_ptr<sd_bus, void (*)(sd_bus*)>;
    SystemBus(Bus bus, std::function<bool()> isStopping) : m_bus(std::move(bus)), m_isStopping(std::move(isStopping)) {}

    const Bus m_bus;
    const std::function<bool()> m_isStopping;
};

}  // namespace QOR
