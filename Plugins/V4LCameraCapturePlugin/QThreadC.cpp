#include "QThreadC.h"

QThreadC::~QThreadC() = default;

void QThreadC::run() { m_body(); }
