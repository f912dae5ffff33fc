// Certificates made at test time (nothing that can expire is committed): a CA, and leaf
// certificates it signs for given names, valid or already expired, as PEM text.
#pragma once

#include <string>
#include <vector>

namespace qntest {

struct Pem {
    std::string cert;  // the certificate (a leaf's chain is just the leaf)
    std::string key;   // its private key
};

// A self-signed CA named `cn`, valid from a day ago for ten days.
Pem MakeCa(const std::string& cn);
// A certificate for `cn` signed by `ca`, with the DNS names and IP addresses in `names` as
// subjectAltNames ("localhost", "127.0.0.1"), valid from a day ago for ten days, or (with
// `expired`) from twenty days ago until ten days ago. `client` makes a client certificate.
Pem MakeLeaf(const Pem& ca, const std::string& cn, const std::vector<std::string>& names,
             bool expired = false, bool client = false);

}  // namespace qntest
