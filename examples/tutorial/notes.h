// examples/tutorial/notes.h
#pragma once

#include <VeltoIPC/VeltoIPC.h>
#include <mutex>
#include <string>
#include <vector>

struct Note {
  std::string author;
  std::string text;
};
VELTO_FIELDS(Note, author, text)

struct Notes {
  std::vector<Note> notes;
};
VELTO_FIELDS(Notes, notes)

// What the service does, apart from how it is started and stopped.
class Board {
 public:
  // It must outlive the service.
  void serveAt(velto::Service& service) {
    service.on<Note, Note>("add", [this, &service](const Note& note) -> velto::Outcome<Note> {
      if (note.text.empty()) return velto::CallError::failed("a note needs a text", 1);
      add(note);
      service.broadcast({{"author", note.author}, {"text", note.text}});
      return note;
    });
    service.on("list", [this](const velto::Request& request) { request.reply(all()); });
  }

 private:
  void add(const Note& note) {
    const std::lock_guard lock(mutex_);
    notes_.push_back(note);
  }
  Notes all() {
    const std::lock_guard lock(mutex_);
    return {notes_};
  }

  // Handlers of different clients run side by side.
  std::mutex mutex_;
  std::vector<Note> notes_;
};
