#pragma once
// Built-in deployment data: the defaults of the server keys, parameters and
// TLS root certificates. All values are invented for this project
// (tools/deployment-data/generate.sh made them); a deployment sets its own
// through the settings file.

namespace deployment_defaults {

extern const char* const kServerUrl;
extern const char* const kServerOuterPublicKeyHex;
extern const char* const kServerInnerPublicKeyHex;
extern const char* const kSrpModulusHex;
extern const char* const kHParamsBase64;
extern const char* const kSigParamsBase64;
extern const char* const kParamCertBase64;
extern const char* const kSslRootCertsBase64;

}  // namespace deployment_defaults
