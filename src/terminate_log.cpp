#include "terminate_log.hpp"

#include "dh_error.hpp"
#include "msg_log.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <typeinfo>

namespace {

std::string type_of_current_exception() {
    const std::type_info* const type = abi::__cxa_current_exception_type();
    if (type == nullptr)
        return "exception of another language";
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), &std::free);
    return status == 0 && name ? name.get() : type->name();
}

std::string with_code(int code, const std::string& message) {
    return type_of_current_exception() + " " + std::to_string(code) + ": " + message;
}

std::string current_exception_text() {
    const std::exception_ptr exception = std::current_exception();
    if (!exception)
        return "no exception";
    try {
        std::rethrow_exception(exception);
    } catch (const dh_client_exception& error) {
        return with_code(error.code, error.message);
    } catch (const dh_error& error) {
        return with_code(error.code, error.message);
    } catch (const std::exception& error) {
        return type_of_current_exception() + ": " + error.what();
    } catch (...) {
        return type_of_current_exception();
    }
}

[[noreturn]] void log_and_abort() noexcept {
    thread_local bool is_ending = false;  // writing the line may fail itself
    if (!is_ending) {
        is_ending = true;
        msg_log::instance().leave_to_this_thread();
        MSG_LOG("tm_velt_init", msg_log::failure)
            << "msg: The process ends by an exception that nobody took: "
            << current_exception_text();
    }
    std::abort();
}

}  // namespace

void log_terminating_exception() {
    std::set_terminate(log_and_abort);
}
