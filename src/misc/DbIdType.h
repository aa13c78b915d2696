#pragma once

/// The kinds of objects that identifiers name, in their fixed order.
class DbIdType
{
public:
    enum enuKeyTypes { eCAM = 0, eWS, eDSP, eSVC, eMOT, eSEQ, eSCN, eSRV, eEVL, eGEN, eEVT, eFLD };
};
