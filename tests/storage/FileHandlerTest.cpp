#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "StorageTestSupport.h"
#include "storage/FileHandler.h"

namespace stonewall {
namespace {

namespace fs = std::filesystem;
using testing::StorageTest;
using testing::writeBytes;

class FileHandlerTest : public StorageTest {
  protected:
    // A handler over a fresh folder of the temporary root.
    FileHandler scratch() {
        fs::create_directories(platform.rootPath() + "/scratch");
        platform.host->setUserDirectory(platform::SearchPathDirectory::Documents,
                                        platform.rootPath());
        return FileHandler::initWithName("scratch", FileLocation::kDocuments);
    }
};

// An unknown location or a group without container: nothing may land
// relative to the working directory.
TEST_F(FileHandlerTest, HandlersWithoutAFolderReachNoFile) {
    const auto cwd = fs::current_path();
    platform.host->setContainerPath(std::string(kApplicationGroup), std::nullopt);
    std::vector<FileHandler> handlers;
    for (int64_t location : {0, 4, -1}) {
        EXPECT_EQ(FileHandler::initWithLocation(location).path(), std::nullopt);
        handlers.push_back(FileHandler::initWithName("x", location));
    }
    handlers.push_back(
        FileHandler::initWithNameAndGroup(".Profiles", std::string(kApplicationGroup)));
    for (const FileHandler& handler : handlers) {
        EXPECT_EQ(handler.path(), "");
        EXPECT_FALSE(handler.writeToFile("stonewall-stray", std::string_view("data")));
        EXPECT_FALSE(handler.fileExists("stonewall-stray"));
        EXPECT_EQ(handler.readFromFile("stonewall-stray"), std::nullopt);
        handler.createFile("stonewall-stray");
        handler.archiveData("stonewall-stray", {{"a", true}});
        EXPECT_FALSE(fs::exists(cwd / "stonewall-stray"));
        EXPECT_FALSE(fs::exists(cwd / "x"));
        EXPECT_EQ(handler.fileSize(std::nullopt), 0);
    }
}

// A write replaces the old file only with a complete new one: a producer
// that gives up, or a full disk (a file-size limit in a child process), leave
// the old file whole and no temporary file.
TEST_F(FileHandlerTest, WritesReplaceTheFileOnlyWhenComplete) {
    struct Case {
        const char* name;
        bool streamed;
        bool producerSucceeds;
        size_t sizeLimit;  // 0: none
        bool written;
    };
    const Case cases[] = {
        {"whole", false, true, 0, true},
        {"whole, disk full", false, true, 1024, false},
        {"streamed, producer gives up", true, false, 0, false},
    };
    const FileHandler handler = scratch();
    const std::string piece(64 * 1024, 'x');
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        ASSERT_TRUE(handler.writeToFile("list.json", std::string_view("old contents, longer")));
        const int result = testing::runInChild([&] {
            if (test.sizeLimit) {
                std::signal(SIGXFSZ, SIG_IGN);
                rlimit limit{};
                limit.rlim_cur = limit.rlim_max = test.sizeLimit;
                if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
            }
            const bool written = test.streamed
                                     ? handler.writeToURL("list.json",
                                                          [&](const DataSink& sink) {
                                                              for (int i = 0; i < 4; ++i)
                                                                  (void)sink(piece);
                                                              return test.producerSucceeds;
                                                          })
                                     : handler.writeToFile("list.json", piece);
            return written ? 1 : 0;
        });
        EXPECT_EQ(result, test.written ? 1 : 0);
        const size_t size = test.streamed ? 4 * piece.size() : piece.size();
        EXPECT_EQ(handler.readFromFile("list.json")->size(), test.written ? size : 20u);
        EXPECT_EQ(std::distance(fs::directory_iterator(*handler.path()), {}), 1);
    }
    // A folder removed meanwhile is not made again: the write fails and says so.
    fs::remove_all(*handler.path());
    EXPECT_FALSE(handler.writeToFile("f", std::string_view("x")));
    EXPECT_FALSE(fs::exists(*handler.path()));
    EXPECT_TRUE(platform.log->contains("FileHandler"));
}

TEST_F(FileHandlerTest, ArchivesRoundTripAndWhatCannotBeDecodedGivesNothing) {
    const FileHandler handler = scratch();
    EXPECT_EQ(handler.unarchiveData("state"), std::nullopt);
    EXPECT_FALSE(handler.fileExists("state"));  // reading creates nothing
    for (const Archive& archive :
         {Archive{{"statusUpdated", true}, {"blockingCounter", false}}, Archive{}}) {
        handler.archiveData("state", archive);
        EXPECT_EQ(handler.unarchiveData("state"), archive);
    }
    for (const std::string& bytes :
         {std::string("not json"), std::string("[true]"), std::string("{\"statusUpdated\":1}"),
          "{\"a\":" + std::string(100000, '[') + std::string(100000, ']') + "}"}) {
        writeBytes(handler.getFilePath("state"), bytes);
        EXPECT_EQ(handler.unarchiveData("state"), std::nullopt) << bytes.substr(0, 40);
    }
}

}  // namespace
}  // namespace stonewall
