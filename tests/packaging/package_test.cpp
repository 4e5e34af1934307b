// The installed layout: `cmake --install` into a scratch prefix and the Debian
// package unpacked into a scratch root both give a tarv that finds its table
// from its own folder and searches from any working directory; the package
// declares every shared library the executables link to.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/packaging/tools.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv::testing {
namespace {

namespace fs = std::filesystem;

// Every file a user needs, relative to the prefix.
const char* const kInstalledFiles[] = {
    "bin/tarv",
    "bin/tarv-service",
    "share/tarv/vantor-v1.json",
    "share/man/man1/tarv.1.gz",
    "share/man/man1/tarv-service.1.gz",
    "share/bash-completion/completions/tarv",
    "share/bash-completion/completions/tarv-service",
    "share/zsh/vendor-completions/_tarv",
};

ProcessOptions withTimeout(int seconds) {
  ProcessOptions options;
  options.timeoutSeconds = seconds;
  return options;
}

// The environment of an installed tarv run by a user: no table override, a
// support folder and cache of its own, started from an unrelated folder.
ProcessOptions userOptions(const TempDir& dir) {
  fs::create_directories(dir / "elsewhere");
  ProcessOptions options = isolatedOptions(dir / "elsewhere");
  options.env["TARV_COMPATIBILITY"] = std::nullopt;
  options.env["TARV_INDEX_CACHE"] = (dir / "cache").string();
  return options;
}

// Searches the tiny source with an installed tarv and checks the answers.
void expectWorkingTarv(const std::string& tarv, const TempDir& dir) {
  const std::string config = writeTinySource(dir).string();
  const ProcessOptions options = userOptions(dir);

  ProcessResult syntax = run(tarv, {"syntax"}, options);
  EXPECT_EQ(syntax.status, 0) << syntax.err;
  EXPECT_EQ(syntax.out, run(tarvBinary(), {"syntax"}).out) << "the installed guide differs from the built one";

  ProcessResult found = run(tarv, {"--config", config, "search", "ext:pdf"}, options);
  EXPECT_EQ(found.status, 0) << found.err;
  EXPECT_EQ(found.out, "/data/report.pdf\n");
  EXPECT_EQ(found.err, "");

  ProcessResult sorted = run(tarv, {"search", "--sort", "size-desc", "--config", config, "file:"}, options);
  EXPECT_EQ(sorted.status, 0) << sorted.err;
  EXPECT_EQ(sorted.out, "/data/report.pdf\n/data/notes.txt\n");

  ProcessResult status = run(tarv, {"status", "--config", config}, options);
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_NE(status.out.find("Records: 3\n"), std::string::npos) << status.out;
}

// Moving the table out of share/tarv must break the installed tarv: proof
// that it was found there and not through some other route.
void expectTableFromShare(const std::string& tarv, const fs::path& prefix, const TempDir& dir) {
  fs::rename(prefix / "share/tarv/vantor-v1.json", dir / "moved.json");
  ProcessResult missing = run(tarv, {"--config", (dir / "config.json").string(), "search", "x"}, userOptions(dir));
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.err, "tarv: Missing compatibility table vantor-v1.json (set TARV_COMPATIBILITY)\n");
  fs::rename(dir / "moved.json", prefix / "share/tarv/vantor-v1.json");
}

TEST(Install, PrefixLayoutWorksFromAnywhere) {
  TempDir dir;
  const fs::path prefix = dir / "prefix";
  ProcessResult installed =
      run(TARV_CMAKE_COMMAND, {"--install", binaryDir(), "--prefix", prefix.string()}, withTimeout(120));
  ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
  for (const char* file : kInstalledFiles) EXPECT_TRUE(fs::is_regular_file(prefix / file)) << file;

  // Through a symbolic link in another folder, as /usr/local/bin links often
  // are: the table is looked up beside the resolved executable.
  fs::create_directories(dir / "links");
  fs::create_symlink(prefix / "bin/tarv", dir / "links/tarv");
  expectWorkingTarv((dir / "links/tarv").string(), dir);
  expectTableFromShare((prefix / "bin/tarv").string(), prefix, dir);
}

// The package that holds a shared library, by the path the loader resolved.
// On merged-/usr systems the loader reports /lib/... while the package
// database lists /usr/lib/..., so both spellings are asked.
std::string packageOf(const std::string& path, const std::string& dpkg) {
  for (const std::string& candidate : {path, "/usr" + path}) {
    ProcessResult owner = run(dpkg, {"-S", candidate});
    if (owner.status != 0) continue;
    for (const std::string& entry : lines(owner.out))
      if (!entry.starts_with("diversion")) return entry.substr(0, entry.find_first_of(":,"));
  }
  return {};
}

// The packages of the shared libraries `binary` names itself (its NEEDED
// entries, not their own dependencies), as the loader finds them here.
std::set<std::string> packagesOfLibraries(const std::string& binary, const std::string& readelf,
                                          const std::string& ldd, const std::string& dpkg) {
  std::map<std::string, std::string> resolved;  // soname -> path
  for (const std::string& line : lines(run(ldd, {binary}).out)) {
    auto arrow = line.find(" => ");
    if (arrow == std::string::npos) continue;
    std::string soname = line.substr(line.find_first_not_of(" \t"), arrow - line.find_first_not_of(" \t"));
    std::string path = line.substr(arrow + 4, line.find(" (", arrow) - arrow - 4);
    resolved[soname] = path;
  }
  std::set<std::string> packages;
  for (const std::string& line : lines(run(readelf, {"-d", binary}).out)) {
    if (line.find("(NEEDED)") == std::string::npos) continue;
    auto begin = line.find('[');
    auto end = line.find(']', begin);
    const std::string soname = line.substr(begin + 1, end - begin - 1);
    auto found = resolved.find(soname);
    if (found == resolved.end()) {
      ADD_FAILURE() << "the loader does not find " << soname;
      continue;
    }
    std::string package = packageOf(found->second, dpkg);
    if (package.empty()) {
      ADD_FAILURE() << "no package holds " << found->second;
      continue;
    }
    packages.insert(package);
  }
  return packages;
}

std::set<std::string> dependsField(const std::string& field) {
  std::set<std::string> names;
  std::istringstream stream(field);
  for (std::string entry; std::getline(stream, entry, ',');) {
    entry.erase(0, entry.find_first_not_of(' '));
    names.insert(entry.substr(0, entry.find_first_of(" (")));
  }
  return names;
}

TEST(DebianPackage, BuildsUnpacksAndSearches) {
  const auto dpkgDeb = findProgram("dpkg-deb");
  if (!dpkgDeb || !findProgram("dpkg-shlibdeps")) GTEST_SKIP() << "dpkg-deb or dpkg-shlibdeps (dpkg-dev) missing";
  TempDir dir;
  const fs::path out = dir / "out";
  ProcessResult built = run(TARV_CPACK_COMMAND,
                            {"-G", "DEB", "--config", binaryDir() + "/CPackConfig.cmake", "-B", out.string()},
                            withTimeout(300));
  ASSERT_EQ(built.status, 0) << built.out << built.err;
  std::string deb;
  for (const auto& entry : fs::directory_iterator(out))
    if (entry.path().extension() == ".deb") deb = entry.path().string();
  ASSERT_FALSE(deb.empty()) << built.out;
  EXPECT_TRUE(fs::path(deb).filename().string().starts_with(std::string("tarv_") + TARV_VERSION + "_")) << deb;

  EXPECT_EQ(run(*dpkgDeb, {"--field", deb, "Package"}).out, "tarv\n");
  EXPECT_EQ(run(*dpkgDeb, {"--field", deb, "Version"}).out, std::string(TARV_VERSION) + "\n");
  const std::set<std::string> depends = dependsField(run(*dpkgDeb, {"--field", deb, "Depends"}).out);
  EXPECT_TRUE(depends.contains("libc6"));
  const auto readelf = findProgram("readelf");
  const auto ldd = findProgram("ldd");
  const auto dpkg = findProgram("dpkg");
  if (readelf && ldd && dpkg) {
    for (const char* binary : {"/tarv", "/tarv-service"})
      for (const std::string& package : packagesOfLibraries(binaryDir() + binary, *readelf, *ldd, *dpkg))
        EXPECT_TRUE(depends.contains(package)) << package << " is linked by " << binary << " but not a dependency";
  }

  const std::string contents = run(*dpkgDeb, {"--contents", deb}).out;
  for (const char* file : kInstalledFiles)
    EXPECT_NE(contents.find(std::string(" ./usr/") + file + "\n"), std::string::npos) << file;

  const fs::path root = dir / "root";
  ProcessResult unpacked = run(*dpkgDeb, {"-x", deb, root.string()});
  ASSERT_EQ(unpacked.status, 0) << unpacked.err;
  expectWorkingTarv((root / "usr/bin/tarv").string(), dir);
  expectTableFromShare((root / "usr/bin/tarv").string(), root / "usr", dir);

  // The service starts far enough to check its arguments: it links and runs.
  ProcessResult service = run((root / "usr/bin/tarv-service").string(), {"--bogus"}, userOptions(dir));
  EXPECT_EQ(service.status, 2);
  EXPECT_TRUE(service.err.starts_with("tarv: unknown argument --bogus")) << service.err;

  // The man pages are the sources, compressed.
  if (const auto gzip = findProgram("gzip")) {
    for (const char* page : {"tarv.1", "tarv-service.1"}) {
      ProcessResult text = run(*gzip, {"-dc", (root / "usr/share/man/man1" / (std::string(page) + ".gz")).string()});
      EXPECT_EQ(text.out, readFile(fs::path(sourceDir()) / "docs/man" / page)) << page;
    }
  }
}

}  // namespace
}  // namespace tarv::testing
