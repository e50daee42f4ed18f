#include "report.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

#include "show.h"
#include "text.h"

namespace identification
{

namespace
{

constexpr std::size_t kShownCharacters = 40;
constexpr std::size_t kValuesWidth = 60;
constexpr std::size_t kBytesPerLine = 8;
constexpr std::size_t kWidthOfBytes = 3 * kBytesPerLine - 1;

/** The columns of one line; `values` may stretch over several. */
struct Row
{
    std::array<std::string, 5> columns;
    std::vector<std::string> values;
};

/** "key value" for each field but the identifier and the name, broken into lines. */
template <typename Component> std::vector<std::string> valueLines(const Component& component)
{
    std::vector<std::string> lines(1);
    Component::forEachField(component,
                            [&lines](const std::string& key, const auto& field)
                            {
                                if (key == "identifier" || key == "name")
                                {
                                    return;
                                }
                                const std::string piece = key + ' ' + show(field, kShownCharacters);
                                std::string& line = lines.back();
                                if (line.empty())
                                {
                                    line = piece;
                                }
                                else if (displayWidth(line) + 2 + displayWidth(piece) <=
                                         kValuesWidth)
                                {
                                    line += "; " + piece;
                                }
                                else
                                {
                                    line += ';';
                                    lines.push_back(piece);
                                }
                            });
    return lines;
}

class Table
{
public:
    template <typename Component>
    void add(const ComponentKind& kind, const std::optional<Component>& component)
    {
        if (component.has_value())
        {
            addRow(kind, "", *component);
        }
        else
        {
            addAbsent(kind, "absent");
        }
    }

    template <typename Component>
    void add(const ComponentKind& kind, const std::vector<Component>& components)
    {
        for (std::size_t i = 0; i < components.size(); ++i)
        {
            addRow(kind, '[' + std::to_string(i) + ']', components[i]);
        }
        if (components.empty())
        {
            addAbsent(kind, "no entries");
        }
    }

    std::string text() const
    {
        std::array<std::size_t, 5> widths{};
        for (const Row& row : mRows)
        {
            for (std::size_t i = 0; i < widths.size(); ++i)
            {
                widths[i] = std::max(widths[i], displayWidth(row.columns[i]));
            }
        }
        std::string result;
        for (const Row& row : mRows)
        {
            std::string front;
            for (std::size_t i = 0; i < widths.size(); ++i)
            {
                front += padded(row.columns[i], widths[i]) + "  ";
            }
            for (const std::string& line : row.values)
            {
                result += withoutTrailingBlanks(front + line) + '\n';
                front.assign(displayWidth(front), ' ');
            }
        }
        return result;
    }

private:
    template <typename Component>
    void addRow(const ComponentKind& kind, const std::string& index, const Component& component)
    {
        mRows.push_back(
            {{std::to_string(kind.number), kind.title, index, std::to_string(component.identifier),
              show(component.name, kShownCharacters)},
             valueLines(component)});
    }

    void addAbsent(const ComponentKind& kind, const char* reason)
    {
        mRows.push_back({{std::to_string(kind.number), kind.title, "", "-", "-"}, {reason}});
    }

    static std::string withoutTrailingBlanks(std::string line)
    {
        line.erase(line.find_last_not_of(' ') + 1);
        return line;
    }

    std::vector<Row> mRows{{{"No", "Component", "", "Id", "Name"}, {"Values"}}};
};

/** The bytes of one line of a slot; padding, which belongs to nobody, as "..". */
std::string shownBytes(const Transaction& transaction, const Slot& slot, std::size_t from)
{
    std::string result;
    const std::size_t to = std::min(from + kBytesPerLine, slot.slotSize);
    for (std::size_t i = from; i < to; ++i)
    {
        result += result.empty() ? "" : " ";
        result += i < slot.size ? hexadecimal(transaction.payload()[slot.offset + i], 2) : "..";
    }
    return result;
}

} // namespace

std::string componentTable(const Description& description)
{
    Table table;
    forEachComponent(description, [&table](const ComponentKind& kind, const auto& component)
                     { table.add(kind, component); });
    return table.text();
}

std::string slotDump(const Transaction& transaction, const std::vector<Slot>& slots)
{
    std::string result = "Payload of " + std::to_string(transaction.payloadSize) + " bytes, " +
                         std::to_string(IAP2_TXN_PAYLOAD_OFFSET) +
                         " bytes into the transaction (.. is padding)\n" + padded("Offset", 6) +
                         "  " + padded("Bytes", kWidthOfBytes) + "  Meaning\n";
    for (const Slot& slot : slots)
    {
        std::string meaning = "  " + slot.meaning;
        for (std::size_t at = 0; at < slot.slotSize; at += kBytesPerLine)
        {
            const std::string bytes = shownBytes(transaction, slot, at);
            result += "0x" + hexadecimal(slot.offset + at, 4) + "  ";
            result += (meaning.empty() ? bytes : padded(bytes, kWidthOfBytes)) + meaning + '\n';
            meaning.clear();
        }
    }
    return result;
}

} // namespace identification
