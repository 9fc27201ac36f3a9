#include "Tls.h"

#include "Framing.h"
#include "VEL_TLSContext.h"
#include "VEL_Tools.h"

namespace velcat {

namespace {

// Loads this side's certificate chain and key when given. `what` names what failed.
VELErr_t loadOwn(const Options& options, VEL_TLSContext& context, std::string& what) {
    if (options.certFile.empty()) {
        return kVELErr_Ok;
    }
    what = options.certFile;
    VELErr_t code = context.useCertificateChainFile(options.certFile.c_str());
    if (code == kVELErr_Ok) {
        what = options.keyFile;
        code = context.usePrivateKeyFile(options.keyFile.c_str());
    }
    return code;
}

bool said(VELErr_t code, const std::string& what) {
    if (code != kVELErr_Ok) {
        Say("cannot use " + what + ": " + FailureText(code));
        return false;
    }
    return true;
}

}  // namespace

bool MakeClientContext(const Options& options, VEL_TLSContext& context) {
    VELErr_t code = context.isValid() ? kVELErr_Ok : kVELErr_TLSInit;
    std::string what = "TLS";
    if (code == kVELErr_Ok && options.insecure) {
        Say("warning: --insecure: the server's certificate is not checked; anybody on the path "
            "can read and change this connection");
        code = context.setPeerVerification(kVELTLSVerify_None);
    } else if (code == kVELErr_Ok) {
        what = options.caFile.empty() ? "the system's trusted certificates" : options.caFile;
        code = options.caFile.empty() ? context.useSystemTrustStore()
                                      : context.loadTrustedCAFile(options.caFile.c_str());
    }
    if (code == kVELErr_Ok) {
        code = loadOwn(options, context, what);
    }
    return said(code, what);
}

bool MakeServerContext(const Options& options, VEL_TLSContext& context) {
    std::string what = "TLS";
    VELErr_t code = context.isValid() ? loadOwn(options, context, what) : kVELErr_TLSInit;
    if (code == kVELErr_Ok && !options.caFile.empty()) {
        what = options.caFile;
        code = context.loadTrustedCAFile(options.caFile.c_str());
        if (code == kVELErr_Ok) {
            code = context.setPeerVerification(kVELTLSVerify_Required);
        }
    }
    return said(code, what);
}

std::string FailureText(VELErr_t code, const std::string& detail) {
    return VEL_Tools::GetErrStr(code) + " [" + std::to_string(static_cast<int>(code)) + "]" +
           (detail.empty() ? "" : " (" + detail + ")");
}

bool IsTLSFailure(VELErr_t code) {
    const int value = static_cast<int>(code);
    return value > 400 && value < 500;
}

}  // namespace velcat
