#include "common/json_file.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <memory>

#include "platform/atomic_file.h"
#include "platform/error_state.h"
#include "platform/file_test.h"

namespace opalcrt
{

namespace
{

constexpr size_t kLargestFile = 64UL * 1024 * 1024;

// jsoncpp's strict mode passes over comments inside an object and takes a NUL byte for the end of the text.
// Outside strings JSON has no slash at all, and a NUL byte nowhere.
bool HasCommentOrNul(const std::string &text)
{
    bool inString = false;
    for (size_t at = 0; at < text.size(); ++at) {
        const char byte = text[at];
        if (byte == '\0' || (byte == '/' && !inString)) {
            return true;
        }
        if (byte == '\\' && inString) {
            ++at;
        } else if (byte == '"') {
            inString = !inString;
        }
    }
    return false;
}

bool Parse(const std::string &text, Json::Value &value)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;  // Callers say themselves what a root that is no object means.
    builder["stackLimit"] = 500;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        std::string errors;
        return !HasCommentOrNul(text) &&
               reader->parse(text.data(), text.data() + text.size(), &value, &errors);
    } catch (const Json::Exception &) {
        return false;
    }
}

std::string Render(const Json::Value &value, const char *indentation)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

}  // namespace

bool fromFile(const std::string &path, Json::Value &value)
{
    value = Json::Value();
    const UniqueFd fd = OpenRegularFile(path.c_str());
    std::string text;
    if (!fd.IsOpen() || !ReadWhole(fd.Get(), kLargestFile, text)) {
        return false;
    }
    if (!Parse(text, value)) {
        value = Json::Value();  // A failed parse leaves what was read so far.
        SET_PLATFORM_ERROR(kErrBadFormat);
        errno = EBADMSG;
        return false;
    }
    return true;
}

bool toFile(const std::string &path, const Json::Value &value, bool indented, const std::string &modelPath)
{
    const std::string text = Render(value, indented ? "\t" : "") + "\n";
    return ReplaceFile(path, text, modelPath.empty() ? path : modelPath);
}

std::string toString(const Json::Value &value)
{
    return Render(value, "") + "\n";
}

std::string ToLogText(const Json::Value &value)
{
    return Render(value, "");
}

}  // namespace opalcrt
