// Changes JSON texts as the trees that they are: among random bytes hardly one text is still JSON, and the code behind
// the parser would see next to none of them.

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t maxSize);

namespace
{

constexpr const char *kWords[] = {"",          "s",       "t",          "p",      "c",
                                  "q",         "a/b",     "..",         "s.temp", "services",
                                  "service",   "owner",   "subscriber", "isPkg",  "RSA",
                                  "ECC / RSA", "opalweb", "key_types",  "e.bak",  "display_name"};

using Nodes = std::vector<Json::Value *>;

void Collect(Json::Value &tree, Nodes &nodes)
{
    nodes.push_back(&tree);
    for (Json::Value &node : tree) {
        Collect(node, nodes);
    }
}

bool Parse(const std::string &text, Json::Value &tree)
{
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 500;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &tree, nullptr);
    } catch (const Json::Exception &) {
        return false;
    }
}

void Grow(Json::Value &node, const Json::Value &what, const std::string &name)
{
    if (node.isObject()) {
        node[name] = what;
    } else if (node.isArray()) {
        node.insert(name.size() % (node.size() + 1), what);
    } else {
        node = what;
    }
}

void Shrink(Json::Value &node, unsigned which)
{
    Json::Value removed;
    if (node.isObject() && !node.empty()) {
        node.removeMember(node.getMemberNames()[which % node.size()]);
    } else if (node.isArray() && !node.empty()) {
        node.removeIndex(which % node.size(), &removed);
    } else {
        node = Json::Value(static_cast<Json::ValueType>(which % 8));
    }
}

void MutateString(Json::Value &node)
{
    std::string text = node.isString() ? node.asString() : std::string();
    const size_t size = text.size();
    text.resize(size + 16);
    text.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t *>(text.data()), size, text.size()));
    node = text;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maxSize, unsigned seed)
{
    std::minstd_rand random(seed);
    Json::Value tree;
    if (random() % 4 == 0 || !Parse(std::string(reinterpret_cast<char *>(data), size), tree)) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    Nodes nodes;
    Collect(tree, nodes);
    Json::Value &node = *nodes[random() % nodes.size()];
    const Json::Value other = *nodes[random() % nodes.size()];
    const std::string word = kWords[random() % std::size(kWords)];
    switch (random() % 5) {
        case 0:
            node = other;
            break;
        case 1:
            Grow(node, other, word);
            break;
        case 2:
            Shrink(node, static_cast<unsigned>(random()));
            break;
        case 3:
            node = word;
            break;
        default:
            MutateString(node);
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    const std::string text = Json::writeString(builder, tree);
    if (text.size() > maxSize) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    std::copy(text.begin(), text.end(), data);
    return text.size();
}
