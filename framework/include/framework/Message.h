#pragma once

#include <memory>
#include <string>

namespace Framework {

class Task;

/// A message from one task to another. The framework owns it once it is passed on, whatever the
/// outcome; only a message that SendAgileMsg refuses stays with the caller.
class Message {
  public:
    virtual ~Message() = default;

    /// Called by the default Task::HandleMsg on the receiving task's thread. Message classes with
    /// an action override it; does nothing by default.
    virtual void Deliver(Task& receiver);
};

/// Additional data of a report. Stored beside the body, never in it.
struct ReportNote {
    std::string outcome;      ///< the action taken, such as "restored"; empty: unknown
    double duration_ms = -1;  ///< from the detection to the outcome; negative: unknown
    /// The body is already one JSON object in one line of valid UTF-8, as JsonUtils::JsonToString
    /// writes it; receivers need not check it.
    bool is_json_line = false;
    std::string evidence = {};  ///< the id of what was kept of the object; empty: nothing
    std::string who = {};       ///< a JSON object: who did it (docs/who.md); empty: not asked
};

/// A report on the command channel: id and body.
class CmdMessage : public Message {
  public:
    CmdMessage(const std::string& msg_id, const std::string& body) : msg_id_(msg_id), body_(body) {}
    const std::string& GetMsgId() const { return msg_id_; }
    const std::string& GetBody() const { return body_; }

  private:
    std::string msg_id_;
    std::string body_;
};

/// A report on the data channel: event (the data kind; "2" is an alarm) and body.
class DataMessage : public Message {
  public:
    DataMessage(const std::string& event, const std::string& body) : event_(event), body_(body) {}
    const std::string& GetEvent() const { return event_; }
    const std::string& GetBody() const { return body_; }

    void SetNote(const ReportNote& note) { note_ = note; }
    const ReportNote& GetNote() const { return note_; }

  private:
    std::string event_;
    std::string body_;
    ReportNote note_;
};

}  // namespace Framework
