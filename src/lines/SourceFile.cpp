#include "lines/SourceFile.h"

CSourceFile::~CSourceFile() = default;

CSourceCell *CSourceFileList::Create(std::u16string name) {
    auto *cell = new CSourceCell(new CSourceFile(std::move(name)));
    m_Cells.push_back(cell);
    return cell;
}

void CSourceFileList::Replace(size_t position, std::unique_ptr<CSourceFile> file) {
    CSourceCell *cell = m_Cells[position];
    delete *cell;
    *cell = file.release();
}

void CSourceFileList::ConvertToDwarf() {
    for (size_t i = 0; i < m_Cells.size(); ++i) {
        CSourceFile *file = *m_Cells[i];
        if (file && file->kind() == 0)
            Replace(i, std::make_unique<CDwarfSourceFile>(*file, uint32_t(i)));
    }
}

void CSourceFileList::Clear() {
    for (CSourceCell *cell : m_Cells) {
        delete *cell;
        delete cell;
    }
    m_Cells.clear();
}
