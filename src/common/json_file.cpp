#include "common/json_file.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cerrno>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include "common/log.h"
#include "common/utf8.h"
#include "platform/atomic_file.h"
#include "platform/error_state.h"
#include "platform/file_read.h"

namespace opalcrt {

namespace {

bool Parse(const std::string &text, Json::Value &value)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;  // Callers say themselves what a root that is no object means.
    builder["stackLimit"] = 500;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    // jsoncpp takes a NUL byte for the end of the text: what stands behind it would be lost at the next write.
    return text.find('\0') == std::string::npos &&
           reader->parse(text.data(), text.data() + text.size(), &value, &errors);
}

std::string Render(const Json::Value &value, const char *indentation, bool isAscii = false)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["emitUTF8"] = !isAscii;
    // No value has comments here, and looking for them takes a third of the time.
    builder["commentStyle"] = "None";
    std::ostringstream text;
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    writer->write(value, &text);
    return std::move(text).str();
}

bool MakeFileText(const Json::Value &value, bool indented, std::string &text)
{
    text = Render(value, indented ? "\t" : "") + "\n";
    if (text.size() > kLargestJsonFile) {
        SET_PLATFORM_ERROR(kErrBadParameter);
        errno = EFBIG;
        return false;
    }
    return true;
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
    } catch (const Json::Exception &) {
        error = EBADMSG;  // It nests too deep.
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
    std::string text;
    return MakeFileText(value, indented, text) &&
           ReplaceFile(path, text, modelPath.empty() ? path : modelPath);
}

bool toNewFile(const std::string &path, const Json::Value &value, bool indented, const std::string &modelPath)
{
    std::string text;
    return MakeFileText(value, indented, text) && WriteNewFile(path, text, modelPath);
}

std::string toString(const Json::Value &value)
{
    const std::string text = ToText(value);
    return (IsUtf8(text) ? text : Render(value, "", true)) + "\n";
}

std::string ToText(const Json::Value &value) { return Render(value, ""); }

std::string ToLogText(const Json::Value &value) { return ShortenForLog(ToText(value)); }

}  // namespace opalcrt
