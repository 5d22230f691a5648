// HTTP requests to services of the card.
#pragma once

#include <chrono>
#include <string>

// One for the process. The HTTP library's global state is set up by the first
// call of `instance`, which therefore comes before other threads need it.
class rest_client {
  public:
    static rest_client& instance();

    struct response {
        long status;  // of HTTP
        std::string body;
    };

    // Throws std::runtime_error where there is no answer within the limit (real
    // time) or the answer is longer than 1 MiB. Any thread may call.
    response get(const std::string& url, std::chrono::milliseconds limit);

    rest_client(const rest_client&) = delete;
    rest_client& operator=(const rest_client&) = delete;

  private:
    rest_client();
};
