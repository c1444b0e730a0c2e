// Text for transcripts of the Thread port: a request as the service decoded it, one field a line,
// for demonstrations and for a reader who wants to see the wire.
//
//     for (const RecordedRequest& recorded : responder.Requests()) {
//         PrintRequest(std::cout, recorded);
//     }
//
//   filter -> service: code 3 ServiceRequest_ObjectDownloadIfRequired, 2166 bytes, pid 812, reply buffer 19 bytes
//       sid    S-1-5-21-...-1001
//       path   \Device\HarddiskVolume2\Data\report.txt
//       local file: attributes 0x20, 17 bytes, written at 132223104000000000
//       marker stream: present
//       open: options 0x1000040, share 0x1, access 0x120089
#pragma once

#include <foldermerge/service/responder.hpp>

#include <ostream>

namespace foldermerge::service {

// Prints recorded's code, name, lengths and process, then each field its code carries (the
// information block in short); bytes that were no request print as one line with the decoder's
// reason.
void PrintRequest(std::ostream& out, const RecordedRequest& recorded);

}  // namespace foldermerge::service
