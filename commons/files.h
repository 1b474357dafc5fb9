#pragma once

#include <string>

/// Where the installed product keeps its files, below the product root that the
/// host configuration names. Nothing here touches the files themselves.
namespace files {

/// Product tools: the product root + "/DTM".
std::string getDtmDir();
/// Configuration of the debug log.
std::string getDtmLogConfigFileName();
std::string getScoutFileName();
std::string getKorvoXsdFileName();
std::string getKorvoRestoreSpecificationXsdFileName();
std::string getTmpDir();
std::string getLibxmlProxyFileName();

/// The bare name of the agent's dumping status; on the source host it lies in the
/// remote agent directory.
std::string getRemoteDumpingStatusFileName();

namespace agents {
/// One directory for each agent, and "shared" for what all of them need.
std::string getDir();
}  // namespace agents

}  // namespace files
