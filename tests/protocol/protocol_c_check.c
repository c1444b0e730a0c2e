/* The records shared with the service, compiled as C: a service written in C includes these
 * headers as they are. Each header comes first once, so that each is seen to stand alone, and
 * their pinned offsets and sizes are checked by the C compiler's own layout. */
#include "servicerequests.h"
#include "servicemessages.h"

/* The port name is UTF-16 text in C as in C++. */
static_assert(sizeof(FOLDERMERGE_PORT_NAME[0]) == 2, "FOLDERMERGE_PORT_NAME is UTF-16");
static_assert(sizeof(DIRTY_BLOCK_STREAM_NAME[0]) == 2, "DIRTY_BLOCK_STREAM_NAME is UTF-16");
