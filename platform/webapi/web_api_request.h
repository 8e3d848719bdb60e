// The suite's request to a peer's web API, as far as the cluster uses it: one JSON request, with
// at most one file, to the request service of the node at a given address, and its JSON answer.
//
//   Json::Value request;  // "api", "version", "method", "params", and optionally
//                         // "file": {"file_key": "file", "file_path": "/absolute/path"}
//   Json::Value response;
//   if (!WebAPIRequest("10.0.0.2", request, response)) ...   // the transport failed
//   if (!response["success"].asBool()) ... response["error"]["code"] ...
//
// The request is signed with the cluster's backend password, so only a member can send one.
// REQUIRES: the caller can read /var/packages/Quillon-Server/etc/backend.conf (root or the package
// user). Safe from any thread: each call opens its own connection.
#ifndef MAILSERVER_WEBAPI_WEB_API_REQUEST_H_
#define MAILSERVER_WEBAPI_WEB_API_REQUEST_H_

#include <string>

#include <json/json.h>

// False when the peer could not be reached, refused the connection, or gave no JSON answer.
bool WebAPIRequest(const std::string &server, const Json::Value &request, Json::Value &response);

#endif  // MAILSERVER_WEBAPI_WEB_API_REQUEST_H_
