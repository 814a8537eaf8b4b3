// The retrieval engine: reads line information back from an object file and answers queries.
#pragma once

#include <memory>

class CBaseRetrieve {
public:
    virtual ~CBaseRetrieve();
};

// A new retrieval engine, or null when it cannot be allocated.
std::unique_ptr<CBaseRetrieve> CreateRetrieve();
