// Private: the check that a member is called in the thread that made its object.
#pragma once

#include "core/Log_p.h"

#include <QtCore/QThread>

#define NUVIKA_ASSERT_OWNER_THREAD() NUVIKA_ASSERT(m_currentThreadId == QThread::currentThreadId())
