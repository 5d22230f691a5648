#include "reference_point_file.hpp"

#include "host.hpp"
#include "msg_log.hpp"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <ios>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace {

constexpr const char* log_channel = "tm_velt_otdr_manager";
constexpr const char* file_path = "/var/persistent/etc/otdr_refpoint_save.json";

// A full record has some 400 bytes. What is far beyond is not taken into memory.
constexpr std::size_t longest_file = std::size_t{64} << 10;
constexpr std::size_t longest_logged_text = 1000;

// Nothing where there is no text to be had; cut where it is too long.
std::optional<std::string> content_of(const std::string& path) {
    std::error_code unknown;
    if (!std::filesystem::is_regular_file(path, unknown))
        return std::nullopt;
    std::ifstream file(path, std::ios::binary);
    std::string content(longest_file + 1, '\0');
    if (!file.read(content.data(), static_cast<std::streamsize>(content.size())) && !file.eof())
        return std::nullopt;
    content.resize(static_cast<std::size_t>(file.gcount()));
    return content;
}

// --- the record ---

// Fills the record from a document. False where a part of it is missing or is not
// what it has to be; then the record is worth nothing.
class record_reader {
  public:
    record_reader(const json::value& document, otdr_measurement& record)
        : document_(document), record_(record) {}

    bool read() {
        return take("valid", record_.valid) && take_timestamp() && take_count() &&
               take("oscFiberlength", record_.osc_fiber_length) &&
               take("oscLinkUp", record_.osc_link_up) &&
               take_each("distances", &otdr_reflection::distance) &&
               take_each("ghosts", &otdr_reflection::is_ghost);
    }

    // The highest number of reflections that the document gives; more than the
    // record holds were dropped.
    std::size_t reflections() const { return reflections_; }

  private:
    static bool assign(bool& to, const json::value& from) {
        if (from.IsBool())
            to = from.GetBool();
        return from.IsBool();
    }
    static bool assign(std::uint32_t& to, const json::value& from) {
        if (from.IsUint())
            to = from.GetUint();
        return from.IsUint();
    }

    template <class T>
    bool take(const char* key, T& to) const {
        const json::value* const found = json::find(document_, key);
        return found != nullptr && assign(to, *found);
    }

    bool take_timestamp() const {
        const json::value* const found = json::find(document_, "timestamp");
        if (found == nullptr || !found->IsInt64() || found->GetInt64() < 0)
            return false;
        record_.timestamp = found->GetInt64();
        return true;
    }

    bool take_count() {
        std::uint32_t count = 0;
        if (!take("numOfReflections", count) || count > std::numeric_limits<std::uint8_t>::max())
            return false;
        record_.num_of_reflections = static_cast<std::uint8_t>(
            std::min<std::size_t>(count, otdr_measurement::max_reflections));
        reflections_ = std::max<std::size_t>(reflections_, count);
        return true;
    }

    template <class T>
    bool take_each(const char* key, T otdr_reflection::*member) {
        const json::value* const found = json::find(document_, key);
        if (found == nullptr || !found->IsArray())
            return false;
        for (rapidjson::SizeType i = 0; i < found->Size(); ++i) {
            T element{};
            if (!assign(element, (*found)[i]))
                return false;
            if (i < record_.reflections.size())
                record_.reflections[i].*member = element;
        }
        reflections_ = std::max<std::size_t>(reflections_, found->Size());
        return true;
    }

    const json::value& document_;
    otdr_measurement& record_;
    std::size_t reflections_ = 0;
};

std::optional<otdr_measurement> record_of(const std::string& text) {
    // The parser takes a NUL for the end of the text.
    if (text.size() > longest_file || text.find('\0') != std::string::npos)
        return std::nullopt;
    json::document document;
    // Not by recursion: the file may be nested as deep as it is long.
    document.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(
        text.data(), text.size());
    otdr_measurement record;
    record_reader reader(document, record);
    if (document.HasParseError() || !reader.read())
        return std::nullopt;
    if (reader.reflections() > otdr_measurement::max_reflections)
        MSG_LOG(log_channel, msg_log::warning)
            << "msg: The reference point has " << reader.reflections() << " reflections, the first "
            << otdr_measurement::max_reflections << " are kept.";
    return record;
}

std::string shortened(std::string text) {
    if (text.ends_with('\n'))
        text.pop_back();
    if (text.size() > longest_logged_text)
        text.replace(longest_logged_text, std::string::npos, "...");
    return json::as_utf8(text);
}

bool store(const std::string& line) {
    const std::string path = host::path(file_path);
    std::error_code ignored;
    if (std::filesystem::is_fifo(path, ignored))
        return false;  // opening it would wait for its other end
    std::ofstream file(path, std::ios::binary);
    file << line << std::endl;
    file.close();
    return file.good();
}

}  // namespace

bool reference_point_file::read(otdr_measurement& point) {
    const std::string path = host::path(file_path);
    std::error_code unknown;
    if (std::filesystem::status(path, unknown).type() == std::filesystem::file_type::not_found)
        return true;
    point = {};
    const std::optional<std::string> text = content_of(path);
    if (const auto record = text ? record_of(*text) : std::nullopt) {
        point = *record;
        return true;
    }
    MSG_LOG(log_channel, msg_log::failure)
        << "msg: Invalid parameters: " << (text ? shortened(*text) : "(not a readable file)");
    return false;
}

bool reference_point_file::write(const otdr_measurement& point) {
    try {
        if (store(json::to_text(as_json(point))))
            return true;
    } catch (const std::exception&) {
        // Told below, as every other failure.
    }
    MSG_LOG(log_channel, msg_log::failure) << "msg: Error writting refpoint save file.";
    return false;
}
