#include "commons/files.h"

#include "support.h"

namespace {

void expectFilesBelow(const std::string& root) {
  EXPECT_EQ(files::getDtmDir(), root + "/DTM");
  EXPECT_EQ(files::getDtmLogConfigFileName(), root + "/DTM/log4cpp.properties");
  EXPECT_EQ(files::getScoutFileName(), root + "/DTM/scout.pl");
  EXPECT_EQ(files::getKorvoXsdFileName(), root + "/DTM/korvo.xsd");
  EXPECT_EQ(files::getKorvoRestoreSpecificationXsdFileName(),
            root + "/DTM/restore-specification.xsd");
  EXPECT_EQ(files::getTmpDir(), root + "/DTM/tmp");
  EXPECT_EQ(files::agents::getDir(), root + "/DTM/agents");
  EXPECT_EQ(files::getLibxmlProxyFileName(), root + "/admin/sbin/libxml-proxy");
  EXPECT_EQ(files::getRemoteDumpingStatusFileName(), "dumping-status.xml");
}

}  // namespace

TEST(FilesTest, LieBelowTheConfiguredProductRoot) {
  IN_FRESH_PROCESS();
  const ScopedFile configuration("/etc/qrv/qrv.conf", "PRODUCT_ROOT_D /srv/a b\n");
  expectFilesBelow("/srv/a b");
}

TEST(FilesTest, LieBelowTheDefaultProductRootWhenNoneIsConfigured) {
  IN_FRESH_PROCESS();
  const ScopedFile configuration("/etc/qrv/qrv.conf", "HTTPD_VHOSTS_D /srv\n");
  expectFilesBelow("/opt/qrv");
}
