#include "ZuNetwork/ZuSockInit.h"

CZuSockInit::CZuSockInit() = default;

CZuSockInit::~CZuSockInit() { CleanUp(); }

CZuError CZuSockInit::Init() { return {}; }

void CZuSockInit::CleanUp() {}
