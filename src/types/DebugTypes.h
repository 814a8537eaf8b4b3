// Types: the twelve basic types, fixed by a base-type code, and procedure types made of a basic
// return type and a procedure kind. The type table owns every type until the library is reset.
#pragma once

#include "objects/DebugObjects.h"
#include "platform/CError.h"

#include "quillet/quillet.h"

#include <cstdint>
#include <string>

class CBinarySection;

enum TypeKind : int { TYPE_BASIC = 1, TYPE_PROCEDURE = 2 };

// CodeView type-record leaves.
constexpr uint16_t LF_PROCEDURE = 0x1008;
constexpr uint16_t LF_ARGLIST = 0x1201;
constexpr uint32_t kFirstTypeIndex = 0x1000;

class CBaseDebugType {
public:
    CBaseDebugType();
    virtual ~CBaseDebugType();
    CBaseDebugType(const CBaseDebugType &) = delete;
    CBaseDebugType &operator=(const CBaseDebugType &) = delete;

    // 1 basic type, 2 procedure type (the object side of a basic type has its own kind, 0).
    virtual int GetTypeKind() const = 0;
    // The CodeView type index; a procedure type writes its records into `types` on first use.
    virtual CError GetTypeIndex(CBinarySection &types, uint32_t &index) = 0;
    // Stores and returns a new index: the next of the library's type-index counter.
    virtual uint32_t AssignTypeIndex();
    uint32_t TypeIndex() const { return m_nTypeIndex; }

protected:
    uint32_t m_nTypeIndex = 0;
};

class CDebugBasicType : public CBaseDebugType, public CBaseLangObject {
public:
    CDebugBasicType();
    ~CDebugBasicType() override;

    // A basic type starts with its type side, so it is not kept in the object arena, whose
    // addresses are those of object sides.
    static void *operator new(size_t size) { return ::operator new(size); }
    static void operator delete(void *p) { ::operator delete(p); }

    int GetTypeKind() const override { return TYPE_BASIC; }
    int GetKind() const override { return 0; }
    CError GetTypeIndex(CBinarySection &types, uint32_t &index) override;
    // The primitive index of the base-type code.
    uint32_t AssignTypeIndex() override;

    CError WriteCodeView(CBinarySection &, CBinarySection &) override { return kOk; }
    CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) override;
    CError ComputeDwarfSize() override;

    // Sets code, name, size and encoding; fails outside 1..12.
    CError SetBasicKind(int32_t code);
    int32_t Code() const { return m_nCode; }
    int16_t ByteSize() const { return m_nByteSize; }
    int16_t Encoding() const { return m_nEncoding; }
    const std::string &Name() const { return m_Name; }

    CBaseLangObject *AsObject() { return this; }

private:
    int32_t m_nCode = 0;
    int16_t m_nByteSize = 1;
    int16_t m_nEncoding = 1;
    std::string m_Name;
};

class CDebugProcType : public CBaseDebugType {
public:
    int GetTypeKind() const override { return TYPE_PROCEDURE; }
    // Writes LF_ARGLIST then LF_PROCEDURE on first use: two consecutive indices.
    CError GetTypeIndex(CBinarySection &types, uint32_t &index) override;

    CError SetProcedureKind(uint32_t kind);
    // Fails unless `type` is a basic type.
    CError SetReturnType(CBaseDebugType *type);
    CDebugBasicType *ReturnType() const { return m_pReturnType; }
    uint32_t ProcedureKind() const { return m_nProcedureKind; }

private:
    CDebugBasicType *m_pReturnType = nullptr;
    uint32_t m_nProcedureKind = 0;
};

// Handles as the caller sees them.
DbgType_ *ToHandle(CBaseDebugType *type);
// The live type behind a handle, or null for anything the library did not hand out.
CBaseDebugType *FromHandle(const DbgType_ *handle);
// The basic type of a code (made on first use); null outside 1..12.
CDebugBasicType *BasicType(int32_t code);
