// XDR codecs of the NFS version 3 types (RFC 4506, RFC 1813).
#ifndef VELOCAST_NFS3XDR_H
#define VELOCAST_NFS3XDR_H

#include <cstdint>
#include <string_view>

#include "Nfs3Types.h"

class CInputStream;
class COutputStream;

// Read and Write of one type each, in the order of its fields.
class CNfs3Xdr {
public:
    // === Readers; all throw CDataTruncatedExpt ===

    static void Read(CInputStream* pIn, bool* pValue);  // true exactly when the word is 1
    static void Read(CInputStream* pIn, std::uint32_t* pValue);
    static void Read(CInputStream* pIn, std::uint64_t* pValue);
    static void Read(CInputStream* pIn, nfstime3* pTime);
    static void Read(CInputStream* pIn, opaque* pOpaque);
    // With bSkip the values are passed over and nothing is set.
    static void Read(CInputStream* pIn, sattr3* pAttr, bool bSkip = false);
    static void Read(CInputStream* pIn, sattrguard3* pGuard);
    // With bSkip the text stays as it is; a text of PATH_SIZE bytes or more is read as empty.
    static void Read(CInputStream* pIn, COpaquePath* pPath, bool bSkip = false);
    static void Read(CInputStream* pIn, createhow3* pHow);
    static void Read(CInputStream* pIn, mknoddata3* pData, bool bSkip = false);

    // === Writers; with bLengthOnly only the length word ===

    static void Write(COutputStream* pOut, bool bValue);
    static void Write(COutputStream* pOut, std::uint32_t iValue);
    static void Write(COutputStream* pOut, std::uint64_t iValue);
    static void Write(COutputStream* pOut, const nfstime3& time);
    static void Write(COutputStream* pOut, const specdata3& spec);
    static void Write(COutputStream* pOut, const fattr3& attr);
    static void Write(COutputStream* pOut, const opaque& data, bool bLengthOnly = false);
    static void Write(COutputStream* pOut, std::string_view sText, bool bLengthOnly = false);
    static void Write(COutputStream* pOut, const char* pcText) = delete;  // would go as a bool
    static void Write(COutputStream* pOut, const COpaquePath& path, bool bLengthOnly = false);
    static void Write(COutputStream* pOut, const nfs_fh3& handle, bool bLengthOnly = false);
    static void Write(COutputStream* pOut, const post_op_attr& attr);
    static void Write(COutputStream* pOut, const wcc_attr& attr);
    static void Write(COutputStream* pOut, const pre_op_attr& attr);
    static void Write(COutputStream* pOut, const wcc_data& wcc);
    static void Write(COutputStream* pOut, const post_op_fh3& handle);
};

#endif
