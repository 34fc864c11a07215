#ifndef VIDORA_NAMES_H
#define VIDORA_NAMES_H

// Makes the base libraries' names visible to the library's own namespace. Flumen::CMediaFrame is left out: the library
// has a CMediaFrame of its own, which is another class.

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Console.h"
#include "Vidora/Ostra/Function.h"
#include "Vidora/Ostra/Log.h"
#include "Vidora/Ostra/Mutex.h"
#include "Vidora/Ostra/Packet.h"
#include "Vidora/Ostra/Thread.h"
#include "Vidora/Ostra/Time.h"
#include "Vidora/Tramel/Level2Buffer.h"
#include "Vidora/Tramel/MediaPacket.h"
#include "Vidora/Tramel/NetHandler.h"
#include "Vidora/Tramel/NetThread.h"
#include "Vidora/Tramel/Sock.h"
#include "Vidora/Tramel/SockAddr.h"

namespace Kavio {

namespace Ostra {
class CByteReader;
class CByteWriter;
class CBitReader;
namespace Utils {
class CMd5;
}
}  // namespace Ostra

namespace Tramel {
class CSockStream;
class CSockDgram;
class CSockAcceptor;
class CStreamSender;
class CMediaStreamSender;
class CMediaStreamReceiver;
class CMediaBuffer;
class CMediaBufferRef;
class CStrParser;
struct DgramSlice;
}  // namespace Tramel

namespace Vidora {

using Ostra::CBitReader;
using Ostra::CByteReader;
using Ostra::CByteWriter;
using Ostra::CGuard;
using Ostra::CMutex;
using Ostra::CThread;
using Ostra::CTime;
using Ostra::logDebug;
using Ostra::logError;
using Ostra::logInfo;
using Ostra::logTrace;
using Ostra::logWarn;
using Ostra::R3Printf;
using Ostra::R3Register;
using Ostra::TFunction;
using Ostra::TFunction1;
using Ostra::TFunction2;
using Ostra::TFunction3;
namespace Memory = Ostra::Memory;
namespace Utils = Ostra::Utils;

using Tramel::CLevel2Buffer_IF;
using Tramel::CMediaBuffer;
using Tramel::CMediaBufferRef;
using Tramel::CMediaPacket;
using Tramel::CMediaStreamReceiver;
using Tramel::CMediaStreamSender;
using Tramel::CNetHandler;
using Tramel::CNetThread;
using Tramel::CSock;
using Tramel::CSockAcceptor;
using Tramel::CSockAddr;
using Tramel::CSockAddrIPv4;
using Tramel::CSockAddrIPv6;
using Tramel::CSockAddrStorage;
using Tramel::CSockDgram;
using Tramel::CSockStream;
using Tramel::CStreamSender;
using Tramel::CStrParser;
using Tramel::DgramSlice;
using Tramel::MSG_SOCK_EXCEPTION;
using Tramel::MSG_SOURCE_CLOSED;

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NAMES_H
