/// @file
/// The whole public interface of the vel library.
#ifndef INCLUDE_VEL_H
#define INCLUDE_VEL_H

// Foundation
#include "Atomic.h"
#include "BoundedString.h"
#include "BufferMgr.h"
#include "CondThreadMutex.h"
#include "Exception.h"
#include "Guard.h"
#include "KeelException.h"
#include "Object.h"
#include "RWThreadMutex.h"
#include "StaticInit.h"
#include "Task.h"
#include "Thread.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "Tools.h"
#include "VolatileUID.h"

// Status codes, tracing, start-up
#include "VELIoVec.h"
#include "VEL_Err.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"
#include "VEL_TraceHandler.h"

// Network
#include "VEL_Acceptor.h"
#include "VEL_ByteStream.h"
#include "VEL_ComEnabler.h"
#include "VEL_ComTools.h"
#include "VEL_Connector.h"
#include "VEL_CryptoTools.h"
#include "VEL_Encryptor.h"
#include "VEL_FrameCodec.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_SockAddr.h"
#include "VEL_SockOptions.h"
#include "VEL_Socket.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSAcceptor.h"
#include "VEL_TLSByteStream.h"
#include "VEL_TLSConnector.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSEngine.h"
#include "VEL_TLSSocket.h"
#include "VEL_TN3270.h"
#include "VEL_Transport.h"
#include "VEL_UDPSocket.h"

// Work queues and thread pool
#include "VEL_Executable.h"
#include "VEL_FastQueue.h"
#include "VEL_Queue.h"
#include "VEL_QueueBase.h"
#include "VEL_ThreadPool.h"

// Timers
#include "VEL_TimerHandler.h"
#include "VEL_TimerManager.h"
#include "VEL_TimerManagerCircularQueue.h"
#include "VEL_TimerManagerCircularQueueAsync.h"
#include "VEL_TimerManagerLinearQueue.h"
#include "VEL_TimerSubscriberInterface.h"

// Reactor and pipes
#include "VEL_EpollIOReactor.h"
#include "VEL_EventHandler.h"
#include "VEL_FramedAcceptor.h"
#include "VEL_FramedConnection.h"
#include "VEL_IOReactor.h"
#include "VEL_Pipe.h"
#include "VEL_PollingEntry.h"
#include "VEL_SelectIOReactor.h"
#include "VEL_SockCtrlIOReactor.h"
#include "VEL_TCPPipe.h"

#endif  // INCLUDE_VEL_H
