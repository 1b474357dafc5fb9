#include "commons/files.h"

#include "hostlib/qrv_conf.h"

namespace files {

namespace {

std::string getProductRoot() {
  return qrvConfGetDefaultByIndex(PRODUCT_ROOT_D);
}

}  // namespace

std::string getDtmDir() {
  return getProductRoot() + "/DTM";
}
std::string getDtmLogConfigFileName() {
  return getDtmDir() + "/log4cpp.properties";
}
std::string getScoutFileName() {
  return getDtmDir() + "/scout.pl";
}
std::string getKorvoXsdFileName() {
  return getDtmDir() + "/korvo.xsd";
}
std::string getKorvoRestoreSpecificationXsdFileName() {
  return getDtmDir() + "/restore-specification.xsd";
}
std::string getTmpDir() {
  return getDtmDir() + "/tmp";
}
std::string getLibxmlProxyFileName() {
  return getProductRoot() + "/admin/sbin/libxml-proxy";
}
std::string getRemoteDumpingStatusFileName() {
  return "dumping-status.xml";
}

namespace agents {
std::string getDir() {
  return getDtmDir() + "/agents";
}
}  // namespace agents

}  // namespace files
