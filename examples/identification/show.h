/**
 * Values as people read them: "-" where there is none, texts in quotation marks and
 * shortened to `limit` characters, lists in brackets.
 */
#ifndef IDENTIFICATION_SHOW_H
#define IDENTIFICATION_SHOW_H

#include <cstddef>
#include <string>
#include <type_traits>

#include <korvane/iAP2Utils.h>

#include "description.h"
#include "text.h"

namespace identification
{

template <typename Type> std::string show(const Type& value, std::size_t limit = kNoLimit)
{
    if constexpr (std::is_same_v<Type, EssentialText>)
    {
        return show(value.text, limit);
    }
    else if constexpr (std::is_same_v<Type, std::string>)
    {
        return quoted(value, limit);
    }
    else if constexpr (std::is_same_v<Type, MacAddress>)
    {
        // Without any digits, as a damaged payload may have it, the trace would be an error.
        return value.digits.empty() ? "" : insertColonIntoMacAddress(value.digits);
    }
    else if constexpr (IsOptional<Type>::value)
    {
        return value.has_value() ? show(*value, limit) : "-";
    }
    else if constexpr (IsVector<Type>::value || IsArray<Type>::value)
    {
        std::string result = "[";
        for (const auto& element : value)
        {
            result += (result.size() == 1 ? "" : ", ") + show(element, limit);
        }
        return result + ']';
    }
    else
    {
        return std::to_string(value);
    }
}

/** The address as traces may show it: not readable at a glance. */
inline std::string secured(const MacAddress& address)
{
    return getSecuredString(show(address));
}

} // namespace identification

#endif
