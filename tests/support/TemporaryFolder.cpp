#include "support/TemporaryFolder.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tarnwell::testing {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder() : path_((fs::temp_directory_path() / "tarnwell-test-XXXXXX").string()) {
    if (!::mkdtemp(path_.data())) throw std::runtime_error("cannot make " + path_);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(std::string_view name, std::string_view contents) const {
    const auto file = path(name);
    fs::create_directories(fs::path(file).parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    out.close();
    if (!out) throw std::runtime_error("cannot write " + file);
    return file;
}

std::string TemporaryFolder::read(std::string_view name) const {
    std::ifstream in(path(name), std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path(name));
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool TemporaryFolder::exists(std::string_view name) const {
    std::error_code ignored;
    return fs::exists(fs::symlink_status(path(name), ignored));
}

}  // namespace tarnwell::testing
