#include "common/json_text.h"

#include <json/writer.h>

namespace opalcrt
{

namespace
{

void AppendEscaped(unsigned char byte, std::string &text)
{
    constexpr char kDigits[] = "0123456789abcdef";
    switch (byte) {
        case '"':
        case '\\':
            text += '\\';
            text += static_cast<char>(byte);
            break;
        case '\b':
            text += "\\b";
            break;
        case '\f':
            text += "\\f";
            break;
        case '\n':
            text += "\\n";
            break;
        case '\r':
            text += "\\r";
            break;
        case '\t':
            text += "\\t";
            break;
        default:
            text += "\\u00";
            text += kDigits[byte >> 4];
            text += kDigits[byte & 0xF];
    }
}

void AppendString(const char *begin, const char *end, std::string &text)
{
    text += '"';
    const char *plain = begin;  // What stands before is in the text already.
    for (const char *at = begin; at != end; ++at) {
        const unsigned char byte = static_cast<unsigned char>(*at);
        if (byte >= 0x20 && byte != '"' && byte != '\\') {
            continue;
        }
        text.append(plain, at);
        AppendEscaped(byte, text);
        plain = at + 1;
    }
    text.append(plain, end);
    text += '"';
}

class Writer
{
public:
    explicit Writer(JsonLayout layout) : isIndented_(layout == JsonLayout::kIndented) {}

    std::string Take() { return std::move(text_); }

    void Append(const Json::Value &value)
    {
        switch (value.type()) {
            case Json::arrayValue:
                AppendChildren(value, '[', ']');
                break;
            case Json::objectValue:
                AppendChildren(value, '{', '}');
                break;
            case Json::stringValue: {
                const char *begin = nullptr;
                const char *end = nullptr;
                value.getString(&begin, &end);
                AppendString(begin, end, text_);
                break;
            }
            case Json::intValue:
                text_ += Json::valueToString(value.asLargestInt());
                break;
            case Json::uintValue:
                text_ += Json::valueToString(value.asLargestUInt());
                break;
            case Json::realValue:
                text_ += Json::valueToString(value.asDouble());
                break;
            case Json::booleanValue:
                text_ += value.asBool() ? "true" : "false";
                break;
            case Json::nullValue:
                text_ += "null";
                break;
        }
    }

private:
    void AppendChildren(const Json::Value &value, char opening, char closing)
    {
        text_ += opening;
        ++depth_;
        const char *comma = "";
        const auto end = value.end();
        for (auto child = value.begin(); child != end; ++child) {
            text_ += comma;
            comma = ",";
            StartLine();
            if (opening == '{') {
                const char *nameEnd = nullptr;
                const char *name = child.memberName(&nameEnd);
                AppendString(name, nameEnd, text_);
                text_ += isIndented_ ? ": " : ":";
            }
            Append(*child);
        }
        --depth_;
        if (!value.empty()) {
            StartLine();
        }
        text_ += closing;
    }

    void StartLine()
    {
        if (isIndented_) {
            text_ += '\n';
            text_.append(depth_, '\t');
        }
    }

    bool isIndented_;
    size_t depth_ = 0;
    std::string text_;
};

}  // namespace

std::string ToJsonText(const Json::Value &value, JsonLayout layout)
{
    Writer writer(layout);
    writer.Append(value);
    return writer.Take();
}

}  // namespace opalcrt
