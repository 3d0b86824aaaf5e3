#include "common/json_file.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include "platform/atomic_file.h"
#include "platform/error_state.h"
#include "platform/file_test.h"

namespace opalcrt
{

namespace
{

// jsoncpp's strict mode passes over comments inside an object, takes a NUL byte for the end of the text and
// control characters inside strings, of which the writer makes six bytes each. Outside strings JSON has no slash
// at all, and inside them no control character.
bool HasWhatIsNoJson(const std::string &text)
{
    bool inString = false;
    for (size_t at = 0; at < text.size(); ++at) {
        const char byte = text[at];
        const bool isControl = static_cast<unsigned char>(byte) < 0x20;
        if (byte == '\0' || (inString ? isControl : byte == '/')) {
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
        return !HasWhatIsNoJson(text) &&
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
    // No value has comments here, and looking for them takes a third of the time.
    builder["commentStyle"] = "None";
    std::ostringstream text;
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    writer->write(value, &text);
    return std::move(text).str();
}

}  // namespace

bool fromFile(const std::string &path, Json::Value &value, size_t limit)
{
    value = Json::Value();
    const UniqueFd fd = OpenRegularFile(path.c_str());
    return fd.IsOpen() && fromOpenFile(fd.Get(), value, limit);
}

bool fromOpenFile(int fd, Json::Value &value, size_t limit)
{
    value = Json::Value();
    int error = EBADMSG;
    try {
        std::string text;
        if (!ReadWhole(fd, limit, text)) {
            return false;
        }
        if (Parse(text, value)) {
            return true;
        }
    } catch (const std::bad_alloc &) {
        error = ENOMEM;
    }
    value = Json::Value();  // A failed parse leaves what was read so far.
    SET_PLATFORM_ERROR(error == ENOMEM ? kErrSystemCall : kErrBadFormat);
    errno = error;
    return false;
}

bool toFile(const std::string &path, const Json::Value &value, bool indented, const std::string &modelPath)
{
    const std::string text = Render(value, indented ? "\t" : "") + "\n";
    if (text.size() > kLargestJsonFile) {
        SET_PLATFORM_ERROR(kErrBadParameter);
        errno = EFBIG;
        return false;
    }
    return ReplaceFile(path, text, modelPath.empty() ? path : modelPath);
}

std::string toString(const Json::Value &value)
{
    return ToLogText(value) + "\n";
}

std::string ToLogText(const Json::Value &value)
{
    return Render(value, "");
}

}  // namespace opalcrt
