#include "lines/Retrieve.h"

#include <new>

CBaseRetrieve::~CBaseRetrieve() = default;

std::unique_ptr<CBaseRetrieve> CreateRetrieve() {
    return std::unique_ptr<CBaseRetrieve>(new (std::nothrow) CBaseRetrieve());
}
