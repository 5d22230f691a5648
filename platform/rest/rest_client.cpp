#include "rest_client.hpp"

#include <curl/curl.h>

#include <memory>
#include <stdexcept>

namespace {

constexpr std::size_t max_body = std::size_t{1} << 20;

std::size_t append_to_body(const char* data, std::size_t size, std::size_t count, void* context) {
    auto& body = *static_cast<std::string*>(context);
    const std::size_t bytes = size * count;
    if (body.size() + bytes > max_body)
        return 0;
    body.append(data, bytes);
    return bytes;
}

struct easy_handle_cleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

// An easy handle serves one thread at a time.
CURL* handle_of_this_thread() {
    thread_local const std::unique_ptr<CURL, easy_handle_cleanup> handle(curl_easy_init());
    if (!handle)
        throw std::runtime_error("no HTTP handle");
    return handle.get();
}

}  // namespace

rest_client::rest_client() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

rest_client& rest_client::instance() {
    static auto* const client = new rest_client;
    return *client;
}

rest_client::response rest_client::get(const std::string& url, std::chrono::milliseconds limit) {
    CURL* const handle = handle_of_this_thread();
    response answer{0, {}};
    curl_easy_reset(handle);
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(limit.count()));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, append_to_body);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &answer.body);
    const CURLcode result = curl_easy_perform(handle);
    if (result != CURLE_OK)
        throw std::runtime_error(std::string("HTTP request failed: ") + curl_easy_strerror(result));
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}
