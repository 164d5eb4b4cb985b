#include "Nfs3Xdr.h"

#include "InputStream.h"
#include "OutputStream.h"
#include "Utilities.h"

// =================================================================================================
// Readers
// =================================================================================================

void CNfs3Xdr::Read(CInputStream* pIn, bool* pValue) {
    std::uint32_t iValue = 0;
    pIn->Read(&iValue);
    *pValue = iValue == 1;
}

void CNfs3Xdr::Read(CInputStream* pIn, std::uint32_t* pValue) { pIn->Read(pValue); }

void CNfs3Xdr::Read(CInputStream* pIn, std::uint64_t* pValue) { pIn->Read8(pValue); }

void CNfs3Xdr::Read(CInputStream* pIn, nfstime3* pTime) {
    pIn->Read(&pTime->seconds);
    pIn->Read(&pTime->nseconds);
}

void CNfs3Xdr::Read(CInputStream* pIn, opaque* pOpaque) {
    std::uint32_t iLen = 0;
    pIn->Read(&iLen);
    pOpaque->pBuf = pIn->GetCurrentBuffer();
    pIn->Skip(iLen);
    pIn->SkipRemainOpaque(iLen);
    pOpaque->iBufLen = iLen;
}

void CNfs3Xdr::Read(CInputStream* pIn, sattr3* pAttr, bool bSkip) {
    *pAttr = {};
    const auto readValue = [&](bool* pbSet, auto* pValue) {
        Read(pIn, pbSet);
        if (!*pbSet) {
            return;
        }
        if (bSkip) {
            pIn->Skip(sizeof(*pValue));
            *pbSet = false;
        } else {
            Read(pIn, pValue);
        }
    };
    const auto readTime = [&](std::uint32_t* pHow, nfstime3* pTime) {
        Read(pIn, pHow);
        if (*pHow != SET_TO_CLIENT_TIME) {
            return;  // the server's time goes on as time 0
        }
        if (bSkip) {
            pIn->Skip(sizeof(*pTime));
            *pHow = DONT_CHANGE;
        } else {
            Read(pIn, pTime);
        }
    };
    readValue(&pAttr->mode.set_it, &pAttr->mode.mode);
    readValue(&pAttr->uid.set_it, &pAttr->uid.uid);
    readValue(&pAttr->gid.set_it, &pAttr->gid.gid);
    readValue(&pAttr->size.set_it, &pAttr->size.size);
    readTime(&pAttr->atime.set_it, &pAttr->atime.atime);
    readTime(&pAttr->mtime.set_it, &pAttr->mtime.mtime);
}

void CNfs3Xdr::Read(CInputStream* pIn, sattrguard3* pGuard) {
    *pGuard = {};
    Read(pIn, &pGuard->check);
    if (pGuard->check) {
        Read(pIn, &pGuard->obj_ctime);
    }
}

void CNfs3Xdr::Read(CInputStream* pIn, COpaquePath* pPath, bool bSkip) {
    std::uint32_t iLen = 0;
    pIn->Read(&iLen);
    if (bSkip) {
        pIn->Skip(iLen);
    } else if (iLen < PATH_SIZE) {
        char cPath[PATH_SIZE];
        pIn->Read(cPath, iLen);
        cPath[iLen] = '\0';
        pPath->sPath = cPath;
    } else {
        pIn->Skip(iLen);
        pPath->sPath.clear();
    }
    pIn->SkipRemainOpaque(iLen);
}

void CNfs3Xdr::Read(CInputStream* pIn, createhow3* pHow) {
    *pHow = {};
    Read(pIn, &pHow->mode);
    if (pHow->mode == CREATE_UNCHECKED || pHow->mode == CREATE_GUARDED) {
        Read(pIn, &pHow->obj_attributes, false);
    } else if (pHow->mode == CREATE_EXCLUSIVE) {
        Read(pIn, &pHow->verf);
    }
}

void CNfs3Xdr::Read(CInputStream* pIn, mknoddata3* pData, bool bSkip) {
    *pData = {};
    Read(pIn, &pData->type);
    if (pData->type == NF3BLK || pData->type == NF3CHR) {
        Read(pIn, &pData->dev_attributes, bSkip);
        if (bSkip) {
            pIn->Skip(sizeof(pData->dev_spec));
        } else {
            Read(pIn, &pData->dev_spec.specdata1);
            Read(pIn, &pData->dev_spec.specdata2);
        }
    } else if (pData->type == NF3SOCK || pData->type == NF3FIFO) {
        Read(pIn, &pData->pipe_attributes, bSkip);
    }
}

// =================================================================================================
// Writers
// =================================================================================================

void CNfs3Xdr::Write(COutputStream* pOut, bool bValue) { pOut->Write(bValue ? 1U : 0U); }

void CNfs3Xdr::Write(COutputStream* pOut, std::uint32_t iValue) { pOut->Write(iValue); }

void CNfs3Xdr::Write(COutputStream* pOut, std::uint64_t iValue) { pOut->Write8(iValue); }

void CNfs3Xdr::Write(COutputStream* pOut, const nfstime3& time) {
    Write(pOut, time.seconds);
    Write(pOut, time.nseconds);
}

void CNfs3Xdr::Write(COutputStream* pOut, const specdata3& spec) {
    Write(pOut, spec.specdata1);
    Write(pOut, spec.specdata2);
}

void CNfs3Xdr::Write(COutputStream* pOut, const fattr3& attr) {
    Write(pOut, attr.type);
    Write(pOut, attr.mode);
    Write(pOut, attr.nlink);
    Write(pOut, attr.uid);
    Write(pOut, attr.gid);
    Write(pOut, attr.size);
    Write(pOut, attr.used);
    Write(pOut, attr.rdev);
    Write(pOut, attr.fsid);
    Write(pOut, attr.fileid);
    Write(pOut, attr.atime);
    Write(pOut, attr.mtime);
    Write(pOut, attr.ctime);
}

void CNfs3Xdr::Write(COutputStream* pOut, const opaque& data, bool bLengthOnly) {
    Write(pOut, data.iBufLen);
    if (!bLengthOnly) {
        pOut->Write(data.pBuf, data.iBufLen);
        pOut->WriteRemainOpaque(data.iBufLen);
    }
}

void CNfs3Xdr::Write(COutputStream* pOut, std::string_view sText, bool bLengthOnly) {
    const auto iLen = static_cast<std::uint32_t>(sText.size());
    Write(pOut, opaque{reinterpret_cast<const unsigned char*>(sText.data()), iLen}, bLengthOnly);
}

void CNfs3Xdr::Write(COutputStream* pOut, const COpaquePath& path, bool bLengthOnly) {
    Write(pOut, std::string_view(path.sPath), bLengthOnly);
}

void CNfs3Xdr::Write(COutputStream* pOut, const nfs_fh3& handle, bool bLengthOnly) {
    Write(pOut, opaque{handle.cHandle, sizeof(handle.cHandle)}, bLengthOnly);
}

void CNfs3Xdr::Write(COutputStream* pOut, const post_op_attr& attr) {
    Write(pOut, attr.attributes_follow);
    if (attr.attributes_follow) {
        Write(pOut, attr.attributes);
    }
}

void CNfs3Xdr::Write(COutputStream* pOut, const wcc_attr& attr) {
    Write(pOut, attr.size);
    Write(pOut, attr.mtime);
    Write(pOut, attr.ctime);
}

void CNfs3Xdr::Write(COutputStream* pOut, const pre_op_attr& attr) {
    Write(pOut, attr.attributes_follow);
    if (attr.attributes_follow) {
        Write(pOut, attr.attributes);
    }
}

void CNfs3Xdr::Write(COutputStream* pOut, const wcc_data& wcc) {
    Write(pOut, wcc.before);
    Write(pOut, wcc.after);
}

void CNfs3Xdr::Write(COutputStream* pOut, const post_op_fh3& handle) {
    Write(pOut, handle.handle_follows);
    if (handle.handle_follows) {
        Write(pOut, handle.handle, false);
    }
}
