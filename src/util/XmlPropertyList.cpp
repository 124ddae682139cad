#include "util/XmlPropertyList.h"

#include <plist/plist.h>
#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "util/BinaryPropertyListReader.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

struct FreeNode {
    void operator()(void* node) const { plist_free(node); }
};
struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};
using Node = std::unique_ptr<void, FreeNode>;
template <class T>
using Malloced = std::unique_ptr<T, FreeMemory>;

/// Refuses what libplist would follow into its own recursion: elements nested without end. Tags have no
/// attributes but <plist>'s, so that what counts as a tag here is the same there.
void checkNesting(std::string_view text) {
    int depth = 0;
    const auto skip = [&](std::string_view end) {
        const auto found = text.find(end);
        if (found == std::string_view::npos) throw MalformedPropertyList("XML is cut off");
        const auto skipped = text.substr(0, found);
        text.remove_prefix(found + end.size());
        return skipped;
    };
    for (auto next = text.find('<'); next != std::string_view::npos; next = text.find('<')) {
        text.remove_prefix(next);
        if (text.starts_with("<!--")) {
            skip("-->");
        } else if (text.starts_with("<![CDATA[")) {
            skip("]]>");
        } else if (text.starts_with("<?")) {
            skip("?>");
        } else {
            const auto tag = skip(">");
            const bool attributes = tag.starts_with("<!DOCTYPE") || tag.starts_with("<plist");
            if (tag.find('[') != std::string_view::npos ||
                (!attributes && tag.find_first_of("\"'<", 1) != std::string_view::npos)) {
                throw MalformedPropertyList("XML beyond a property list");
            }
            if (tag.starts_with("<!") || tag.ends_with('/')) continue;
            depth += tag.starts_with("</") ? -1 : 1;
            // One level for <plist>, one for a leaf.
            if (depth > kMaxPropertyListDepth + 2) throw MalformedPropertyList("nested too deeply");
        }
    }
}

/// libplist gives a date in whole seconds of 32 bits, which end in 2069; beyond them its binary form has the
/// date.
Date dateOf(plist_t node) {
    std::int32_t seconds = 0;
    std::int32_t micros = 0;
    plist_get_date_val(node, &seconds, &micros);
    if (seconds != INT32_MIN && seconds != INT32_MAX) return *dateFromPropertyListSeconds(seconds);
    char* bytes = nullptr;
    std::uint32_t size = 0;
    plist_to_bin(node, &bytes, &size);
    const Malloced<char> owned(bytes);
    const BinaryPropertyListReader reader({bytes, size});
    const auto date = reader.top().date();
    if (!date) throw MalformedPropertyList("date out of range");
    return *date;
}

PropertyList convert(plist_t node, int depth);

PropertyList convertDictionary(plist_t node, int depth) {
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    const Malloced<void> owned(iterator);
    PropertyList::Dictionary dictionary;
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, iterator, &key, &value);
        const Malloced<char> ownedKey(key);
        if (!key || !value) return dictionary;
        dictionary.append(key, convert(value, depth + 1));
    }
}

PropertyList convertArray(plist_t node, int depth) {
    plist_array_iter iterator = nullptr;
    plist_array_new_iter(node, &iterator);
    const Malloced<void> owned(iterator);
    PropertyList::Array array;
    for (;;) {
        plist_t value = nullptr;
        plist_array_next_item(node, iterator, &value);
        if (!value) return array;
        array.push_back(convert(value, depth + 1));
    }
}

PropertyList convert(plist_t node, int depth) {
    if (depth > kMaxPropertyListDepth) throw MalformedPropertyList("nested too deeply");
    std::uint64_t size = 0;
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t flag = 0;
            plist_get_bool_val(node, &flag);
            return flag != 0;
        }
        case PLIST_UINT: {
            std::uint64_t number = 0;
            plist_get_uint_val(node, &number);
            return static_cast<std::int64_t>(number);
        }
        case PLIST_REAL: {
            double number = 0;
            plist_get_real_val(node, &number);
            return number;
        }
        case PLIST_DATE:
            return dateOf(node);
        case PLIST_STRING: {
            const char* text = plist_get_string_ptr(node, &size);
            return std::string(text ? text : "", text ? size : 0);
        }
        case PLIST_DATA: {
            const char* bytes = plist_get_data_ptr(node, &size);
            return PropertyList::Data{std::string(bytes ? bytes : "", bytes ? size : 0)};
        }
        case PLIST_ARRAY:
            return convertArray(node, depth);
        case PLIST_DICT:
            return convertDictionary(node, depth);
        default:
            throw MalformedPropertyList("value of an unknown kind");
    }
}

/// Writes values one after the other; no indentation, which only costs bytes.
class XmlWriter {
  public:
    std::string document(const PropertyList& value) {
        out_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
        write(value);
        out_ += "</plist>\n";
        return std::move(out_);
    }

    void operator()(bool flag) { out_ += flag ? "<true/>\n" : "<false/>\n"; }
    void operator()(std::int64_t number) { element("integer", std::to_string(number)); }
    void operator()(double number) {
        std::array<char, 32> digits{};
        const char* end = std::to_chars(digits.begin(), digits.end(), number).ptr;
        element("real", std::isnan(number)   ? "nan"
                        : std::isinf(number) ? (number < 0 ? "-infinity" : "+infinity")
                                             : std::string_view(digits.data(), end));
    }
    void operator()(Date date) {
        element("date",
                JSONObjectFromNSDate(date).replace(19, std::string::npos, "Z"));  // without the fraction
    }
    void operator()(const std::string& text) { textElement("string", text); }
    void operator()(const PropertyList::Data& data) { element("data", base64Encode(data.bytes)); }
    void operator()(const PropertyList::Array& array) {
        out_ += "<array>\n";
        for (const auto& value : array)
            write(value);
        out_ += "</array>\n";
    }
    void operator()(const PropertyList::Dictionary& dictionary) {
        out_ += "<dict>\n";
        for (const auto& [key, value] : dictionary.entries()) {
            textElement("key", key);
            write(value);
        }
        out_ += "</dict>\n";
    }

  private:
    void write(const PropertyList& value) {
        if (++depth_ > kMaxPropertyListDepth + 1) throw MalformedPropertyList("nested too deeply");
        std::visit(*this, value.value());
        --depth_;
    }

    void element(std::string_view name, std::string_view content) {
        out_.append("<").append(name).append(">").append(content);
        out_.append("</").append(name).append(">\n");
    }

    void textElement(std::string_view name, std::string_view text) {
        out_.append("<").append(name).append(">");
        while (!text.empty()) {
            const auto plain = static_cast<std::size_t>(
                std::find_if_not(text.begin(), text.end(), standsForItself) - text.begin());
            out_ += text.substr(0, plain);
            text.remove_prefix(plain);
            if (text.empty()) break;
            utf8proc_int32_t point = -1;
            const auto size = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                               static_cast<utf8proc_ssize_t>(text.size()), &point);
            const auto length = size > 0 ? static_cast<std::size_t>(size) : 1;
            character(point, text.substr(0, length));
            text.remove_prefix(length);
        }
        out_.append("</").append(name).append(">\n");
    }

    static bool standsForItself(char letter) {
        return letter >= 0x20 && letter < 0x7F && letter != '&' && letter != '<' && letter != '>';
    }

    void character(utf8proc_int32_t point, std::string_view bytes) {
        switch (point) {
            case -1:
                out_ += "\xEF\xBF\xBD";
                break;
            case '&':
                out_ += "&amp;";
                break;
            case '<':
                out_ += "&lt;";
                break;
            case '>':
                out_ += "&gt;";
                break;
            case '\r':
                out_ += "&#13;";
                break;  // a bare one would be read as a line feed
            default:
                if ((point >= 0 && point < 0x20 && point != '\t' && point != '\n') || point == 0xFFFE ||
                    point == 0xFFFF) {
                    throw MalformedPropertyList("a text that XML cannot carry");
                }
                out_ += bytes;
        }
    }

    std::string out_;
    int depth_ = 0;
};

}  // namespace

PropertyList parseXmlPropertyList(std::string_view bytes) {
    if (bytes.size() > UINT32_MAX) throw MalformedPropertyList("XML is too long");
    checkNesting(bytes);
    plist_t root = nullptr;
    plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    const Node owned(root);
    if (!root) throw MalformedPropertyList("not a property list");
    return convert(root, 0);
}

std::string xmlPropertyList(const PropertyList& value) {
    return XmlWriter().document(value);
}

}  // namespace tarnwell
