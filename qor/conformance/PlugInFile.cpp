#include "conformance/PlugInFile.h"

#include <elf.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>
#include <type_traits>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

/// Reads what may be anything: whatever does not lie within the file is refused.
class LibraryImage {
public:
    explicit LibraryImage(const std::filesystem::path& file) : m_file(file.string()) {
        if (!std::filesystem::is_regular_file(file)) refuse("is no file");
        std::ifstream stream(file, std::ios::binary);
        if (!stream) refuse(std::strerror(errno));
        m_bytes.assign(std::istreambuf_iterator<char>(stream), {});
        if (m_bytes.size() < sizeof(Elf64_Ehdr) || !m_bytes.starts_with(ELFMAG)) refuse("is no library");
        const auto header = at<Elf64_Ehdr>(0);
        if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB)
            refuse("is a library for machines of another kind");
        if (header.e_type != ET_DYN) refuse("is no library that can be loaded");
        for (std::size_t index = 0; index < header.e_shnum; ++index)
            m_sections.push_back(at<Elf64_Shdr>(header.e_shoff + index * sizeof(Elf64_Shdr)));
    }

    /// Calls `use` with each entry of the sections of a kind, and the offset and size of the texts that it refers to.
    template <class Entry, class Use>
    void each(std::uint32_t kind, const Use& use) const {
        for (const Elf64_Shdr& section : m_sections) {
            if (section.sh_type != kind || section.sh_link >= m_sections.size()) continue;
            for (std::uint64_t entry = 0; entry + sizeof(Entry) <= section.sh_size; entry += sizeof(Entry))
                use(at<Entry>(section.sh_offset + entry), m_sections[section.sh_link]);
        }
    }

    std::string text(const Elf64_Shdr& texts, std::uint64_t offset) const {
        if (offset >= texts.sh_size || texts.sh_offset > m_bytes.size() ||
            texts.sh_size > m_bytes.size() - texts.sh_offset)
            refuse("is damaged");
        const std::string_view all = std::string_view(m_bytes).substr(texts.sh_offset, texts.sh_size);
        return std::string(all.substr(offset, all.find('\0', offset) - offset));
    }

private:
    template <class Value>
    Value at(std::uint64_t offset) const {
        static_assert(std::is_trivially_copyable_v<Value>);
        if (offset > m_bytes.size() || m_bytes.size() - offset < sizeof(Value)) refuse("is damaged");
        Value value;
        std::memcpy(&value, m_bytes.data() + offset, sizeof(Value));
        return value;
    }
    [[noreturn]] void refuse(const std::string& why) const {
        throw QORException(errFailure, m_file + " " + why, QOR_SOURCE_PATH);
    }

    std::string m_file;
    std::string m_bytes;
    std::vector<Elf64_Shdr> m_sections;
};

}  // namespace

PlugInFile readPlugInFile(const std::filesystem::path& file) {
    const LibraryImage image(file);
    PlugInFile result;
    image.each<Elf64_Sym>(SHT_DYNSYM, [&](const Elf64_Sym& symbol, const Elf64_Shdr& texts) {
        const unsigned binding = ELF64_ST_BIND(symbol.st_info);
        const unsigned visibility = ELF64_ST_VISIBILITY(symbol.st_other);
        const std::string name = image.text(texts, symbol.st_name);
        if (name.empty() || binding == STB_LOCAL) return;
        if (symbol.st_shndx == SHN_UNDEF) {
            if (binding != STB_WEAK) result.wanted.push_back(name);
        } else if (visibility == STV_DEFAULT || visibility == STV_PROTECTED) {
            result.offered.push_back(name);
        }
    });
    image.each<Elf64_Dyn>(SHT_DYNAMIC, [&](const Elf64_Dyn& entry, const Elf64_Shdr& texts) {
        if (entry.d_tag == DT_NEEDED) result.needed.push_back(image.text(texts, entry.d_un.d_val));
    });
    return result;
}

}  // namespace QOR
