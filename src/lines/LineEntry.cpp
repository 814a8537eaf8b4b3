#include "lines/LineEntry.h"

#include <algorithm>

void SortLineEntries(CLineEntry *first, CLineEntry *last) {
    auto byAddress = [](const CLineEntry &a, const CLineEntry &b) {
        return a.Address() < b.Address();
    };
    if (!std::is_sorted(first, last, byAddress))
        std::stable_sort(first, last, byAddress);
}
