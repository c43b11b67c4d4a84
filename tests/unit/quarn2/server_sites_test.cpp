// Tests of the sites that the suites with real servers use: the sites list all files on a storage,
// limit its space and clean up.
#include <gmock/gmock.h>

#include <fstream>

#include "ftp_site.h"
#include "s3_site.h"
#include "sftp_site.h"
#include "webdav_site.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServerSites : public testing::TestWithParam<StorageKind> {
  protected:
    std::unique_ptr<StorageSite> site_ = GetParam().make();
};

TEST_P(ServerSites, BeginEmptyAndGiveATokenWithoutLooseEnds) {
    EXPECT_THAT(site_->Everything(), IsEmpty());
    EXPECT_EQ(site_->Token().find_first_of(" #\n"), std::string::npos);
}

TEST_P(ServerSites, SeeALeftover) {
    ASSERT_TRUE(site_->LeaveLeftover("deep/er/file"));
    ASSERT_TRUE(site_->LeaveLeftover("file"));
    EXPECT_EQ(site_->Everything().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(All, ServerSites,
                         testing::Values(SiteKind<S3Site>("s3"),
                                         SiteKind<S3VirtualHostSite>("s3_virtual"),
                                         SiteKind<SftpSite>("sftp"), SiteKind<WebdavSite>("webdav"),
                                         SiteKind<Webdav2Site>("webdav2"),
                                         SiteKind<FtpsSite>("ftp"), SiteKind<Ftps2Site>("ftp2")),
                         NameOfKind<StorageKind>);

// Makes the directory of the site public.
class OpenSite : public SftpSite {
  public:
    using SftpSite::directory;
};

TEST(ServedDirectorySite, HoldsNoMoreThanItsLimitAndGoesWithItsMount) {
    std::string directory;
    {
        OpenSite site;
        directory = site.directory();
        ASSERT_TRUE(site.LimitRoom(64 * 1024));
        std::ofstream file(directory + "/file");
        file << std::string(60 * 1024, 'x') << std::flush;
        EXPECT_TRUE(file.good());
        file << std::string(60 * 1024, 'x') << std::flush;
        EXPECT_FALSE(file.good());
        EXPECT_THAT(site.Everything(), ElementsAre("file"));
    }
    EXPECT_FALSE(local_files::Has(directory));
}

}  // namespace
