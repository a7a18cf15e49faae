// SPDX-License-Identifier: Apache-2.0
// The English day and month abbreviations of HTTP dates and cookie expiries. Never localised:
// clients compare them byte for byte.
#pragma once

#include <array>

namespace tw {

// Indexed by days since Sunday, as tm_wday counts.
inline constexpr std::array kDayNames{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
// Indexed by months since January, as tm_mon counts.
inline constexpr std::array kMonthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
static_assert(kDayNames.size() == 7);
static_assert(kMonthNames.size() == 12);

}  // namespace tw
