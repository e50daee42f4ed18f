#include "comparison.h"

#include <optional>
#include <unordered_map>
#include <utility>

#include "show.h"

namespace identification
{

namespace
{

using ShownValues = std::vector<std::pair<std::string, std::string>>;

/** Lists every value under its place. Texts are shown without a limit, so nothing gets lost. */
class Lister
{
public:
    template <typename Value>
    void presence(const std::string& place, const std::optional<Value>& value)
    {
        // The value itself follows under the same place, and tells presence as well.
        if (!value.has_value())
        {
            shown.emplace_back(place, "nothing");
        }
        else if constexpr (IsComponent<Value>::value)
        {
            shown.emplace_back(place, "a component");
        }
    }

    template <typename Value> void count(const std::string& place, const std::vector<Value>& list)
    {
        shown.emplace_back(place, "count " + std::to_string(list.size()));
    }

    template <typename Value> void value(const std::string& place, const Value& value)
    {
        shown.emplace_back(place, show(value));
    }

    ShownValues shown;
};

ShownValues list(const Description& description)
{
    Lister lister;
    Walk(lister).through(description);
    return std::move(lister.shown);
}

} // namespace

std::vector<Difference> compare(const Description& sent, const Description& received)
{
    const ShownValues left = list(sent);
    const ShownValues right = list(received);

    std::unordered_map<std::string, std::string> receivedAt(right.begin(), right.end());
    std::vector<Difference> differences;
    for (const auto& [place, value] : left)
    {
        const auto found = receivedAt.find(place);
        if (found == receivedAt.end())
        {
            differences.push_back({place, "sent " + value + ", not received"});
            continue;
        }
        if (found->second != value)
        {
            differences.push_back({place, "sent " + value + ", received " + found->second});
        }
        receivedAt.erase(found);
    }
    for (const auto& [place, value] : right)
    {
        if (receivedAt.find(place) != receivedAt.end())
        {
            differences.push_back({place, "received " + value + ", not sent"});
        }
    }
    return differences;
}

std::size_t countOfValues(const Description& description)
{
    return list(description).size();
}

} // namespace identification
