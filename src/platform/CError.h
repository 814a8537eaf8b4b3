// The internal two-valued status of every operation inside the library. Exported functions
// translate it into a DBG_ERR_* code at their boundary only.
#pragma once

#include <cstdint>

class [[nodiscard]] CError {
public:
    enum Status : uint32_t { BOOL_STATUS_OK = 0, BOOL_STATUS_FAILED = 1 };

    constexpr CError(Status status = BOOL_STATUS_OK) : m_Status(status) {}

    constexpr bool Ok() const { return m_Status == BOOL_STATUS_OK; }
    constexpr bool Failed() const { return m_Status != BOOL_STATUS_OK; }
    constexpr Status Value() const { return m_Status; }
    constexpr bool operator==(Status status) const { return m_Status == status; }
    constexpr bool operator!=(Status status) const { return m_Status != status; }

private:
    Status m_Status;
};

constexpr CError kOk = CError::BOOL_STATUS_OK;
constexpr CError kFailed = CError::BOOL_STATUS_FAILED;
