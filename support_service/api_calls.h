/// The operations of the API (docs/support-service-api.yaml), by the names that they have there.
#pragma once

#include "api_call.h"

namespace TarvoOrvane::SupportService {

/// Does what a request asks for. Runs in a thread of the HTTP server and does not wait for the disk.
/// @param call  Lives until the answer is given.
/// @param done  Gets the answer, unless an exception was thrown.
/// @throws ApiError for what is wrong with the request; StoreError when the store can't be read.
using ApiOperation = void (*)(ApiCall& call, const AnswerSink& done);

void GetService(ApiCall& call, const AnswerSink& done);
void GetSettings(ApiCall& call, const AnswerSink& done);
void GetSession(ApiCall& call, const AnswerSink& done);
void SignIn(ApiCall& call, const AnswerSink& done);
void SignOut(ApiCall& call, const AnswerSink& done);
void ListDevices(ApiCall& call, const AnswerSink& done);
void EnrolDevice(ApiCall& call, const AnswerSink& done);
void GetDevice(ApiCall& call, const AnswerSink& done);
void BlockDevice(ApiCall& call, const AnswerSink& done);
void UnblockDevice(ApiCall& call, const AnswerSink& done);
void ListTickets(ApiCall& call, const AnswerSink& done);
void SendTicket(ApiCall& call, const AnswerSink& done);
void GetTicket(ApiCall& call, const AnswerSink& done);
void CancelTicket(ApiCall& call, const AnswerSink& done);
void ListTicketEvents(ApiCall& call, const AnswerSink& done);
void DownloadArchive(ApiCall& call, const AnswerSink& done);
void DeleteArchive(ApiCall& call, const AnswerSink& done);
void ListArchiveEntries(ApiCall& call, const AnswerSink& done);
void GetManifest(ApiCall& call, const AnswerSink& done);
void DownloadEntry(ApiCall& call, const AnswerSink& done);
void ReadEntryText(ApiCall& call, const AnswerSink& done);
void FollowEvents(ApiCall& call, const AnswerSink& done);
void ListUsers(ApiCall& call, const AnswerSink& done);
void AddUser(ApiCall& call, const AnswerSink& done);
void ChangeUser(ApiCall& call, const AnswerSink& done);
void RemoveUser(ApiCall& call, const AnswerSink& done);
void ListTokens(ApiCall& call, const AnswerSink& done);
void AddToken(ApiCall& call, const AnswerSink& done);
void RemoveToken(ApiCall& call, const AnswerSink& done);
void ListAudit(ApiCall& call, const AnswerSink& done);
void GetHealth(ApiCall& call, const AnswerSink& done);
void MakeBackup(ApiCall& call, const AnswerSink& done);

}  // namespace TarvoOrvane::SupportService
