// A trace message whose body is kept as opaque bytes.
#pragma once

#include "libqbtrace/MessageBase.h"

/// What a reader returns for an identifier it has no class for (the body is kept as it came),
/// and, under MessageBase::IMH_RETURN_INVALID_MESSAGE, for a message whose body is not valid
/// for its identifier (then isValid() is false and getInvalidReason() says why).
class RawTraceMessage : public MessageBase {
  public:
    RawTraceMessage(msgid_t id, timeStamp_t ts, byteVec_t body);
    ~RawTraceMessage() override;

    MessageBase* clone() const override;
    size_t getSize() const override;
    void appendBody(byteVec_t& out) const override;
    /// "trace message id 0x<id> len <n>" and, if invalid, " invalid: <reason>".
    std::ostream& print(std::ostream& os) const override;

    const byteVec_t& getBody() const { return body; }

  private:
    byteVec_t body;
};
