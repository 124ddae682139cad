#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarnwell::service {

/// Where the service's certificates are, all in one folder.
struct CertificateFiles {
    explicit CertificateFiles(const std::filesystem::path& folder)
        : authority(folder / "ca.pem"), authorityKey(folder / "ca-key.pem"), server(folder / "server.pem") {}
    std::filesystem::path authority;     ///< for clients to trust; public
    std::filesystem::path authorityKey;  ///< signs server certificates; mode 0600
    std::filesystem::path server;  ///< the server's key and its certificate in one file, so that they change
                                   ///< together; mode 0600
};

/// Makes what is missing: the authority once, and the server's certificate whenever it does not cover every
/// host of the domains or ends within a month. Files are replaced whole. True when the server's certificate
/// was made anew. Throws ServiceError; an authority whose key is lost is an error, never silently replaced:
/// clients trust it.
bool ensureCertificates(const CertificateFiles& files, const std::vector<std::string>& domainHosts);

}  // namespace tarnwell::service
