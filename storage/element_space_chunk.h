// Element spaces kept as chunks of a chunk container.
//
// LmStoreChunk copies the space's block into the chunk (type, id): a chunk
// not yet in the container is added with a handle of its own (the manager
// owns it), an existing one has its bytes replaced and is marked changed.
// Either way the container writes it at its next save; the space stays the
// caller's.
//
// LmLoadChunk copies the chunk's bytes into `space`, replacing what it held.
// A block in host order must pass LmValid; one written in big-endian order
// must pass LmValidBE and stays big-endian (read it with the ...BE
// operations or turn it with LmFromBE). The loaded space starts unlocked:
// a lock count stored with the block is cleared. Anything else is refused
// with kErrInvalidData before the space is touched.
//
// Both answer 0 or a code and log one line per failure at 515.
#ifndef PLINTH_STORAGE_ELEMENT_SPACE_CHUNK_H_
#define PLINTH_STORAGE_ELEMENT_SPACE_CHUNK_H_

#include "foundation/export.h"
#include "storage/chunk_manager.h"
#include "storage/element_space.h"

PLINTH_API int LmStoreChunk(ChunkManager& cm, ElementSpace& space, int type, int id);
PLINTH_API int LmLoadChunk(ChunkManager& cm, int type, int id, ElementSpace* space);

#endif  // PLINTH_STORAGE_ELEMENT_SPACE_CHUNK_H_
