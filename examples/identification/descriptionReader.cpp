#include "descriptionReader.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "failures.h"
#include "files.h"
#include "text.h"
#include "transaction.h"

namespace identification
{

namespace
{

using nlohmann::json;

constexpr std::size_t kLargestFile = 1024 * 1024;
constexpr std::size_t kDeepestNesting = 16;
constexpr std::size_t kShownCharacters = 40; ///< of a text from the file, in a complaint

[[noreturn]] void fail(const std::string& place, const std::string& reason)
{
    throw InputError((place.empty() ? "the top level" : place) + ": " + reason);
}

/** The place of a member; keys that are no plain words are quoted. */
std::string memberPlace(const std::string& parent, const std::string& key)
{
    const bool isPlain = !key.empty() && key.size() <= kShownCharacters &&
                         std::all_of(key.begin(), key.end(),
                                     [](char c) {
                                         return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                                                (c >= '0' && c <= '9') || c == '_';
                                     });
    return parent + (parent.empty() ? "" : ".") + (isPlain ? key : quoted(key, kShownCharacters));
}

/* ---- From text to a JSON value --------------------------------------------------------------- */

/**
 * Follows the parser through the text, so that a complaint can name the place where it stands, and
 * refuses what the parser would let pass.
 */
class Tracker
{
public:
    void follow(json::parse_event_t event, const json& parsed)
    {
        switch (event)
        {
        case json::parse_event_t::object_start:
        case json::parse_event_t::array_start:
            if (mLevels.size() == kDeepestNesting)
            {
                fail(place(), "nested deeper than " + std::to_string(kDeepestNesting) + " levels");
            }
            mLevels.push_back({event == json::parse_event_t::array_start, 0, {}, {}});
            break;
        case json::parse_event_t::key:
            mLevels.back().key = parsed.get<std::string>();
            if (!mLevels.back().keys.insert(mLevels.back().key).second)
            {
                fail(place(), "stands there twice");
            }
            break;
        case json::parse_event_t::object_end:
        case json::parse_event_t::array_end:
            mLevels.pop_back();
            valueDone();
            break;
        case json::parse_event_t::value:
            valueDone();
            break;
        }
    }

    std::string place() const
    {
        std::string result;
        for (const Level& level : mLevels)
        {
            if (level.isArray)
            {
                result += '[' + std::to_string(level.index) + ']';
            }
            else if (!level.key.empty() || level.keys.count("") != 0)
            {
                result = memberPlace(result, level.key);
            }
        }
        return result;
    }

private:
    struct Level
    {
        bool isArray;
        std::size_t index;
        std::string key;
        std::set<std::string> keys;
    };

    void valueDone()
    {
        if (!mLevels.empty())
        {
            mLevels.back().key.clear();
            ++mLevels.back().index;
        }
    }

    std::vector<Level> mLevels;
};

/** "line 3, column 14" of the byte at `at`. */
std::string positionOf(std::string_view text, std::size_t at)
{
    const std::string_view before = text.substr(0, at);
    const std::size_t lineStart = before.rfind('\n') + 1; // npos + 1 is 0
    const auto lines = std::count(before.begin(), before.end(), '\n') + 1;
    const std::string_view line = before.substr(lineStart);
    const auto columns =
        std::count_if(line.begin(), line.end(),
                      [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; });
    return "line " + std::to_string(lines) + ", column " + std::to_string(columns + 1);
}

/** The parser's explanation without its own account of the position and of what it read there. */
std::string reasonOf(const json::parse_error& error)
{
    constexpr std::size_t shownCharacters = 160;
    const std::string text = error.what();
    const std::size_t column = text.find(", column ");
    const std::size_t colon = column == std::string::npos ? column : text.find(": ", column);
    std::string reason = colon == std::string::npos ? text : text.substr(colon + 2);
    const std::size_t lastRead = reason.find("; last read: ");
    if (lastRead != std::string::npos)
    {
        const std::size_t expected = reason.rfind("; expected ");
        const bool isBehind = expected != std::string::npos && expected > lastRead;
        reason.erase(lastRead, isBehind ? expected - lastRead : std::string::npos);
    }
    return printable(reason, shownCharacters);
}

json parseJson(std::string_view text)
{
    const std::size_t invalid = findInvalidUtf8(text);
    Tracker tracker;
    try
    {
        json result = json::parse(text.begin(), text.end(),
                                  [&tracker](int, json::parse_event_t event, json& parsed)
                                  {
                                      tracker.follow(event, parsed);
                                      return true;
                                  });
        if (invalid != std::string_view::npos)
        {
            fail(positionOf(text, invalid), "not UTF-8");
        }
        return result;
    }
    catch (const json::parse_error& error)
    {
        if (invalid != std::string_view::npos && error.byte > invalid)
        {
            const std::string place = tracker.place();
            fail(place.empty() ? positionOf(text, invalid)
                               : place + " (" + positionOf(text, invalid) + ')',
                 "not UTF-8");
        }
        const std::size_t at = std::min(error.byte == 0 ? 0 : error.byte - 1, text.size());
        fail(positionOf(text, at), "not JSON: " + reasonOf(error));
    }
    catch (const json::out_of_range&)
    {
        fail(tracker.place(), "the number is larger than any that is allowed");
    }
}

/* ---- From a JSON value to the description ---------------------------------------------------- */

template <typename Type> struct IsArrayOfOptionals : std::false_type
{
};
template <typename Value, std::size_t count>
struct IsArrayOfOptionals<std::array<std::optional<Value>, count>> : std::true_type
{
};

/** True for what may be left out of the file. */
template <typename Type>
constexpr bool kCanBeLeftOut =
    IsOptional<Type>::value || IsVector<Type>::value || IsArrayOfOptionals<Type>::value ||
    std::is_same_v<Type, EssentialText>;

/** What a value is called in a complaint. */
std::string kindOf(const json& node)
{
    switch (node.type())
    {
    case json::value_t::null:
        return "null";
    case json::value_t::object:
        return "an object";
    case json::value_t::array:
        return "an array";
    case json::value_t::string:
        return "a text";
    case json::value_t::boolean:
        return "true or false";
    default:
        return "a number";
    }
}

[[noreturn]] void failKind(const std::string& place, const char* expected, const json& node)
{
    fail(place, std::string("must be ") + expected + ", not " + kindOf(node));
}

void requireKeys(const std::string& place, const json& node, const std::vector<std::string>& known)
{
    if (!node.is_object())
    {
        failKind(place, "an object", node);
    }
    for (const auto& member : node.items())
    {
        if (std::find(known.begin(), known.end(), member.key()) == known.end())
        {
            std::string list;
            for (const std::string& key : known)
            {
                list += (list.empty() ? "" : ", ") + key;
            }
            fail(memberPlace(place, member.key()), "unknown key; there are " + list);
        }
    }
}

template <typename Number> Number readNumber(const std::string& place, const json& node)
{
    constexpr Number largest = std::numeric_limits<Number>::max();
    if (!node.is_number())
    {
        failKind(place, "a number", node);
    }
    const bool isInRange = node.is_number_float()
                               ? node.get<double>() >= 0 && node.get<double>() <= largest
                           : node.is_number_unsigned() ? node.get<std::uint64_t>() <= largest
                                                       : node.get<std::int64_t>() == 0; // "-0"
    if (!isInRange)
    {
        fail(place, "is " + node.dump() + ", outside 0 to " + std::to_string(largest));
    }
    if (node.is_number_float())
    {
        fail(place, "is " + node.dump() + ", not a number without point and exponent");
    }
    return node.get<Number>();
}

std::string readText(const std::string& place, const json& node)
{
    if (!node.is_string())
    {
        failKind(place, "a text", node);
    }
    auto text = node.get<std::string>();
    if (text.find('\0') != std::string::npos)
    {
        fail(place, "contains the character \\u0000, which ends a text");
    }
    return text;
}

MacAddress readMacAddress(const std::string& place, const json& node)
{
    constexpr std::size_t digitCount = 12;
    constexpr std::size_t lengthWithColons = 17;
    const std::string text = readText(place, node);
    MacAddress address;
    bool isValid = text.size() == digitCount || text.size() == lengthWithColons;
    for (std::size_t i = 0; isValid && i < text.size(); ++i)
    {
        const char c = text[i];
        if (text.size() == lengthWithColons && i % 3 == 2)
        {
            isValid = c == ':';
        }
        else if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))
        {
            address.digits += c;
        }
        else if (c >= 'a' && c <= 'f')
        {
            address.digits += static_cast<char>(c - 'a' + 'A');
        }
        else
        {
            isValid = false;
        }
    }
    if (!isValid)
    {
        fail(place, "is " + quoted(text, kShownCharacters) +
                        ", not a MAC address such as 00:1A:7D:DA:71:13 or 001A7DDA7113");
    }
    return address;
}

template <typename Type> void readValue(const std::string& place, const json& node, Type& value);

template <typename Sequence>
void readElements(const std::string& place, const json& node, Sequence& sequence)
{
    if (!node.is_array())
    {
        failKind(place, "an array", node);
    }
    if constexpr (IsVector<Sequence>::value)
    {
        sequence.resize(node.size());
    }
    else if (node.size() != sequence.size())
    {
        fail(place, "must have " + std::to_string(sequence.size()) + " entries, not " +
                        std::to_string(node.size()));
    }
    for (std::size_t i = 0; i < sequence.size(); ++i)
    {
        readValue(elementPlace(place, i), node[i], sequence[i]);
    }
}

template <typename Type>
void readMember(const std::string& place, const json& object, const char* key, Type& value)
{
    const auto found = object.find(key);
    if (found != object.end())
    {
        readValue(memberPlace(place, key), *found, value);
    }
    else if constexpr (!kCanBeLeftOut<Type>)
    {
        fail(memberPlace(place, key), "is missing");
    }
}

template <typename Component>
void readComponent(const std::string& place, const json& node, Component& component)
{
    std::vector<std::string> known;
    Component::forEachField(component,
                            [&known](const char* key, const auto&) { known.emplace_back(key); });
    requireKeys(place, node, known);
    Component::forEachField(component, [&place, &node](const char* key, auto& field)
                            { readMember(place, node, key, field); });
}

template <typename Type> void readValue(const std::string& place, const json& node, Type& value)
{
    if constexpr (std::is_same_v<Type, EssentialText>)
    {
        readValue(place, node, value.text);
    }
    else if constexpr (IsOptional<Type>::value)
    {
        // A component is left out, not null.
        if (IsComponent<typename Type::value_type>::value || !node.is_null())
        {
            readValue(place, node, value.emplace());
        }
    }
    else if constexpr (IsVector<Type>::value || IsArray<Type>::value)
    {
        readElements(place, node, value);
    }
    else if constexpr (IsComponent<Type>::value)
    {
        readComponent(place, node, value);
    }
    else if constexpr (std::is_same_v<Type, std::string>)
    {
        value = readText(place, node);
    }
    else if constexpr (std::is_same_v<Type, MacAddress>)
    {
        value = readMacAddress(place, node);
    }
    else
    {
        value = readNumber<Type>(place, node);
    }
}

/* ---- What no single value can tell ----------------------------------------------------------- */

/** An identifier names one component, of whatever kind. */
void requireUniqueIdentifiers(const Description& description)
{
    std::map<std::uint16_t, std::string> places;
    const auto add = [&places](const std::string& place, std::uint16_t identifier)
    {
        const auto [found, isNew] = places.emplace(identifier, place);
        if (!isNew)
        {
            fail(place + ".identifier", std::to_string(identifier) + " is the identifier of " +
                                            found->second + " already");
        }
    };
    forEachComponent(description,
                     [&add](const ComponentKind& kind, const auto& component)
                     {
                         if constexpr (IsVector<std::decay_t<decltype(component)>>::value)
                         {
                             for (std::size_t i = 0; i < component.size(); ++i)
                             {
                                 add(elementPlace(kind.key, i), component[i].identifier);
                             }
                         }
                         else if (component.has_value())
                         {
                             add(kind.key, component->identifier);
                         }
                     });
}

/** Adds up the slots as they will be marshalled, and complains where they no longer fit. */
class SizeCheck
{
public:
    template <typename Value>
    void presence(const std::string& place, const std::optional<Value>& /*value*/)
    {
        addNumber(place);
    }

    template <typename Value>
    void count(const std::string& place, const std::vector<Value>& /*list*/)
    {
        addNumber(place);
    }

    template <typename Number> void value(const std::string& place, const Number& /*value*/)
    {
        static_assert(std::is_unsigned_v<Number> && sizeof(Number) <= IAP2_MARSHAL_SLOT_SIZE);
        addNumber(place);
    }

    void value(const std::string& place, const std::string& text)
    {
        addBytes(place, text.size() + 1);
    }

    void value(const std::string& place, const EssentialText& text)
    {
        addBytes(place, text.text.has_value() ? text.text->size() + 1 : 0);
    }

    void value(const std::string& place, const MacAddress& address)
    {
        addBytes(place, address.digits.size() / 2);
    }

private:
    void addNumber(const std::string& place)
    {
        add(place, IAP2_MARSHAL_SLOT_SIZE);
    }

    void addBytes(const std::string& place, std::size_t length)
    {
        constexpr std::size_t slot = IAP2_MARSHAL_SLOT_SIZE;
        if (length > mLongestText)
        {
            mLongestText = length;
            mLongestPlace = place;
        }
        add(place, slot + (length + slot - 1) / slot * slot);
    }

    void add(const std::string& place, std::size_t size)
    {
        if (size > kPayloadCapacity - mSize)
        {
            // Where one text takes most of the room, that is the one to shorten.
            const bool isOther = mLongestText > kPayloadCapacity / 2 && mLongestPlace != place;
            fail(place, "does not fit: " + std::to_string(size) + " bytes, where " +
                            std::to_string(kPayloadCapacity - mSize) + " are left of " +
                            std::to_string(kPayloadCapacity) +
                            (isOther ? " (" + mLongestPlace + " takes " +
                                           std::to_string(mLongestText) + ')'
                                     : ""));
        }
        mSize += size;
    }

    std::size_t mSize = 0;
    std::size_t mLongestText = 0;
    std::string mLongestPlace;
};

} // namespace

Description parseDescription(std::string_view json)
{
    const nlohmann::json root = parseJson(json);
    Description description;
    std::vector<std::string> known;
    forEachComponent(description, [&known](const ComponentKind& kind, const auto&)
                     { known.emplace_back(kind.key); });
    requireKeys("", root, known);
    forEachComponent(description, [&root](const ComponentKind& kind, auto& component)
                     { readMember("", root, kind.key, component); });
    requireUniqueIdentifiers(description);
    SizeCheck sizes;
    Walk(sizes).through(description);
    return description;
}

Description readDescription(const std::string& path)
{
    try
    {
        return parseDescription(readFile(path, kLargestFile));
    }
    catch (const InputError& error)
    {
        throw InputError(printable(path) + ": " + error.what());
    }
}

} // namespace identification
