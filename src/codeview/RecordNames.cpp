#include "codeview/RecordNames.h"

#include "platform/Check.h"
#include "platform/Text.h"

#include <algorithm>
#include <vector>

namespace quillet::cv {

bool FitNamesInRecord(size_t otherBytes, std::initializer_list<std::string *> names) {
    constexpr size_t capacity = kMaxRecordSize;
    size_t total = otherBytes;
    for (const std::string *name : names)
        total += name->size();
    const bool recordFits = total <= capacity;
    if (QCHECK(recordFits))
        return true;
    std::vector<std::string *> longestFirst(names);
    std::stable_sort(
        longestFirst.begin(), longestFirst.end(),
        [](const std::string *a, const std::string *b) { return a->size() > b->size(); });
    for (std::string *name : longestFirst) {
        if (total <= capacity)
            break;
        const size_t excess = total - capacity;
        const size_t before = name->size();
        CutUtf8(*name, before > excess ? before - excess : 0);
        total -= before - name->size();
    }
    return false;
}

} // namespace quillet::cv
