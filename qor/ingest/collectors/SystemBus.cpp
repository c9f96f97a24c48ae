#include "ingest/collectors/SystemBus.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "QORCommon/QORPercent.h"
#include "QORCommon/QORUtf8.h"
#include "ingest/collectors/LoadedLibrary.h"

namespace QOR {
namespace {

constexpr std::chrono::seconds patience(10);
constexpr std::chrono::milliseconds slice(200);  ///< after which the owner is asked again

/// What the library and the bus say when a service says nothing.
constexpr std::array<std::string_view, 4> ownErrors{SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_DISCONNECTED,
                                                    SD_BUS_ERROR_TIMEOUT, "org.freedesktop.DBus.Error.TimedOut"};

/// The functions that speak to buses, loaded when there is somebody to speak to.
class BusLibrary : private LoadedLibrary {
public:
    static const BusLibrary& instance() {
        static const BusLibrary library;
        return library;
    }

private:
    BusLibrary() : LoadedLibrary("libsystemd.so.0", "the system's bus cannot be asked") {}

public:
    decltype(sd_bus_new)* const create = find<decltype(sd_bus_new)>("sd_bus_new");
    decltype(sd_bus_set_address)* const setAddress = find<decltype(sd_bus_set_address)>("sd_bus_set_address");
    decltype(sd_bus_set_bus_client)* const setBusClient =
        find<decltype(sd_bus_set_bus_client)>("sd_bus_set_bus_client");
    decltype(sd_bus_start)* const start = find<decltype(sd_bus_start)>("sd_bus_start");
    decltype(sd_bus_close_unref)* const closeUnref = find<decltype(sd_bus_close_unref)>("sd_bus_close_unref");
    decltype(sd_bus_call_async)* const callAsync = find<decltype(sd_bus_call_async)>("sd_bus_call_async");
    decltype(sd_bus_process)* const process = find<decltype(sd_bus_process)>("sd_bus_process");
    decltype(sd_bus_wait)* const wait = find<decltype(sd_bus_wait)>("sd_bus_wait");
    decltype(sd_bus_slot_unref)* const slotUnref = find<decltype(sd_bus_slot_unref)>("sd_bus_slot_unref");
    decltype(sd_bus_message_new_method_call)* const newCall =
        find<decltype(sd_bus_message_new_method_call)>("sd_bus_message_new_method_call");
    decltype(sd_bus_message_set_auto_start)* const setAutoStart =
        find<decltype(sd_bus_message_set_auto_start)>("sd_bus_message_set_auto_start");
    decltype(sd_bus_message_append_basic)* const appendBasic =
        find<decltype(sd_bus_message_append_basic)>("sd_bus_message_append_basic");
    decltype(sd_bus_message_get_error)* const getError =
        find<decltype(sd_bus_message_get_error)>("sd_bus_message_get_error");
    decltype(sd_bus_message_enter_container)* const enterContainer =
        find<decltype(sd_bus_message_enter_container)>("sd_bus_message_enter_container");
    decltype(sd_bus_message_exit_container)* const exitContainer =
        find<decltype(sd_bus_message_exit_container)>("sd_bus_message_exit_container");
    decltype(sd_bus_message_read_basic)* const readBasic =
        find<decltype(sd_bus_message_read_basic)>("sd_bus_message_read_basic");
    decltype(sd_bus_message_read_array)* const readArray =
        find<decltype(sd_bus_message_read_array)>("sd_bus_message_read_array");
    decltype(sd_bus_message_skip)* const skip = find<decltype(sd_bus_message_skip)>("sd_bus_message_skip");
    decltype(sd_bus_message_peek_type)* const peekType =
        find<decltype(sd_bus_message_peek_type)>("sd_bus_message_peek_type");
    decltype(sd_bus_message_ref)* const ref = find<decltype(sd_bus_message_ref)>("sd_bus_message_ref");
    decltype(sd_bus_message_unref)* const unref = find<decltype(sd_bus_message_unref)>("sd_bus_message_unref");
};

const BusLibrary& bus() {
    return BusLibrary::instance();
}

void closeBus(sd_bus* one) {
    bus().closeUnref(one);
}

void unrefMessage(sd_bus_message* message) {
    bus().unref(message);
}

int understood(int result) {
    if (result < 0)
        throw SystemBusFailure("the answer makes no sense: " + std::generic_category().message(-result), {});
    return result;
}

int reached(int result) {
    if (result < 0)
        throw SystemBusFailure("the system's bus does not answer: " + std::generic_category().message(-result), {});
    return result;
}

/// A question that is under way.
struct Pending {
    sd_bus_message* answer = nullptr;
    sd_bus_slot* slot = nullptr;

    Pending() = default;
    ~Pending() {
        if (slot != nullptr) bus().slotUnref(slot);
        if (answer != nullptr) bus().unref(answer);
    }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;
};

int keepAnswer(sd_bus_message* message, void* pending, sd_bus_error*) {
    static_cast<Pending*>(pending)->answer = bus().ref(message);
    return 1;
}

}  // namespace

bool SystemBusFailure::isNobodyThere() const noexcept {
    return m_name == SD_BUS_ERROR_NAME_HAS_NO_OWNER || m_name == SD_BUS_ERROR_SERVICE_UNKNOWN;
}

bool SystemBusFailure::isUnknown() const noexcept {
    return m_name == SD_BUS_ERROR_UNKNOWN_OBJECT || m_name.ends_with(".NoSuchMachine") ||
           m_name.ends_with(".NoSuchImage");
}

SystemBusAnswer::SystemBusAnswer(sd_bus_message* message) : m_message(message, unrefMessage) {}

bool SystemBusAnswer::enter(char type, const char* contents) {
    return understood(bus().enterContainer(m_message.get(), type, contents)) > 0;
}

void SystemBusAnswer::exit() {
    understood(bus().exitContainer(m_message.get()));
}

std::string SystemBusAnswer::text(char type) {
    const char* text = nullptr;
    if (understood(bus().readBasic(m_message.get(), type, &text)) == 0 || text == nullptr) understood(-ENXIO);
    return text;
}

std::int32_t SystemBusAnswer::number() {
    std::int32_t number = 0;
    if (understood(bus().readBasic(m_message.get(), SD_BUS_TYPE_INT32, &number)) == 0) understood(-ENXIO);
    return number;
}

std::uint64_t SystemBusAnswer::count() {
    std::uint64_t count = 0;
    if (understood(bus().readBasic(m_message.get(), SD_BUS_TYPE_UINT64, &count)) == 0) understood(-ENXIO);
    return count;
}

std::string SystemBusAnswer::bytes() {
    const void* bytes = nullptr;
    std::size_t size = 0;
    understood(bus().readArray(m_message.get(), SD_BUS_TYPE_BYTE, &bytes, &size));
    return size == 0 ? std::string() : std::string(static_cast<const char*>(bytes), size);
}

void SystemBusAnswer::skip(const char* types) {
    understood(bus().skip(m_message.get(), types));
}

std::string SystemBusAnswer::type() {
    char type = 0;
    const char* contents = nullptr;
    if (understood(bus().peekType(m_message.get(), &type, &contents)) == 0) return {};
    return type == SD_BUS_TYPE_VARIANT && contents != nullptr ? contents : std::string(1, type);
}

std::unique_ptr<SystemBus> SystemBus::open(const std::filesystem::path& socket, std::function<bool()> isStopping) {
    std::error_code error;
    if (!std::filesystem::is_socket(socket, error)) return nullptr;
    sd_bus* created = nullptr;
    reached(bus().create(&created));
    Bus one(created, closeBus);
    reached(bus().setAddress(created, ("unix:path=" + percentEscaped(socket.string())).c_str()));
    reached(bus().setBusClient(created, 1));
    const int result = bus().start(created);
    if (result == -ENOENT || result == -ECONNREFUSED) return nullptr;
    reached(result);
    return std::unique_ptr<SystemBus>(new SystemBus(std::move(one), std::move(isStopping)));
}

SystemBusAnswer SystemBus::ask(const Question& question) {
    sd_bus_message* made = nullptr;
    reached(bus().newCall(m_bus.get(), &made, question.service, question.path, question.interface, question.member));
    const std::unique_ptr<sd_bus_message, void (*)(sd_bus_message*)> message(made, unrefMessage);
    reached(bus().setAutoStart(made, question.mayStart ? 1 : 0));
    for (const std::string& text : question.texts)
        reached(bus().appendBasic(made, SD_BUS_TYPE_STRING, text.c_str()));
    Pending pending;
    const std::chrono::microseconds limit = patience;
    reached(bus().callAsync(m_bus.get(), &pending.slot, made, keepAnswer, &pending,
                            static_cast<std::uint64_t>(limit.count())));
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (pending.answer == nullptr) {
        if (m_isStopping()) throw SystemBusFailure("it was to end", {});
        if (std::chrono::steady_clock::now() > deadline) reached(-ETIMEDOUT);
        if (reached(bus().process(m_bus.get(), nullptr)) > 0) continue;
        reached(bus().wait(m_bus.get(), static_cast<std::uint64_t>(std::chrono::microseconds(slice).count())));
    }
    const sd_bus_error* const error = bus().getError(pending.answer);
    if (error == nullptr || error->name == nullptr) return SystemBusAnswer(std::exchange(pending.answer, nullptr));
    const std::string name = error->name;
    const bool isOfService = std::find(ownErrors.begin(), ownErrors.end(), name) == ownErrors.end();
    throw SystemBusFailure(
        std::string(question.member) + ": " + toUtf8(error->message == nullptr ? error->name : error->message),
        isOfService ? name : std::string());
}

}  // namespace QOR
