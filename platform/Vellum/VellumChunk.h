// SPDX-License-Identifier: Apache-2.0
#pragma once

/// A bounded block of bytes that other processes may map too.
///
/// Two forms: POSIX shared memory under a name, which outlives every process that maps it until its
/// name is removed, and memory private to the process, for tables that nobody else reads. Offsets
/// and lengths are in bytes; a chunk is at most 4294967295 bytes long.
///
/// Several processes may have one chunk open. Bytes written in one write are one image for a killed
/// writer and for readers in other processes; Vellum/OrderedCopy.h says what that means and why it
/// holds. One process writes an image, any number read it.
///
/// Threads: within a process, one chunk object is used from one thread at a time, except that
/// references to it follow Corvo::ThreadControl::tsp_.

#include "Corvo/Ptr.h"
#include "Corvo/String.h"
#include "Vellum/OrderedCopy.h"

namespace Vellum {

/// A mapping of memory into this process, unmapped when it goes.
class Mapping {
 public:
   static constexpr int noFile = -1;

   Mapping() = default;
   /// Takes `file` over, the open file that is mapped; noFile for memory of the process alone.
   Mapping( U8* base, U32 size, int file ) : base_( base ), size_( size ), file_( file ) {}
   Mapping( Mapping&& other ) noexcept
         : base_( std::exchange( other.base_, nullptr ) ), size_( std::exchange( other.size_, 0 ) ),
           file_( std::exchange( other.file_, noFile ) ) {}
   Mapping& operator=( Mapping&& ) = delete;
   ~Mapping();

   U8* base() const { return base_; }
   U32 size() const { return size_; }
   int file() const { return file_; }

 private:
   U8* base_ = nullptr;
   U32 size_ = 0;
   int file_ = noFile;
};

/// Bytes `begin` to `end` of a chunk, the second not included.
struct Stretch {
   U64 begin;
   U64 end;
};

class [[gnu::visibility( "default" )]] VellumChunk : public Corvo::Node {
 public:
   enum class Access { readOnly, readWrite };

   /// `size` zero bytes, private to the process; the name is empty. Pages are taken from the system
   /// when they are first touched. std::bad_alloc when the address space has no room.
   static Corvo::Ptr<VellumChunk> inProcess( U32 size );

   /// New POSIX shared memory of `size` zero bytes under `name`, for its owner alone (mode 0600),
   /// open for reading and writing. A name is a slash and 1 to 254 further bytes without a slash.
   /// std::system_error, with the name and the cause: a malformed name or a size of 0
   /// (invalid_argument), a name that exists, whatever it is (file_exists), more memory than the
   /// system has for this (no_space_on_device), or what the system answers. A failure leaves no
   /// new name behind.
   static Corvo::Ptr<VellumChunk> create( Corvo::String const& name, U32 size );

   /// Maps existing shared memory. std::system_error, with the name and the cause: a malformed name
   /// (invalid_argument), no such name (no_such_file_or_directory), a name that is a link, is no
   /// plain shared memory, belongs to another user or lets other users in (permission_denied or
   /// too_many_symbolic_link_levels), a size of 0 or past 4294967295 bytes (invalid_argument,
   /// file_too_large), or what the system answers.
   static Corvo::Ptr<VellumChunk> open( Corvo::String const& name,
                                        Access access = Access::readWrite );

   /// Removes the name; processes that have the memory mapped keep it. std::system_error as open,
   /// for a malformed name and for one that does not exist.
   static void remove( Corvo::String const& name );

   /// Copies `length` bytes at `data` to `offset`, as one image. Contract failures, nothing written:
   /// "offset + length <= size()" outside the chunk, "access() == Access::readWrite" on a chunk
   /// opened read-only.
   void write( U32 offset, void const* data, U32 length ) { writeAt( offset, data, length ); }

   /// Copies `length` bytes at `offset` to `data`, as one image. Contract failure
   /// "offset + length <= size()" outside the chunk, nothing copied.
   void read( U32 offset, void* data, U32 length ) const { readAt( offset, data, length ); }

   /// write and read for callers whose offset is a sum: one past 32 bits is outside the chunk.
   void writeAt( U64 offset, void const* data, U32 length ) {
      storeImage( writableAt( offset, length ), static_cast<U8 const*>( data ), length );
   }
   void readAt( U64 offset, void* data, U32 length ) const {
      loadImage( readableAt( offset, length ), static_cast<U8*>( data ), length );
   }

   /// The bytes at `offset`, for the functions of Vellum/OrderedCopy.h, as long as the chunk lives.
   /// Contract failures as write and read.
   U8* writableAt( U64 offset, U32 length ) {
      if ( offset + length >= writesEndBefore_ ) [[unlikely]] {
         refuseWrite( offset, length );
      }
      return mapping_.base() + offset;
   }
   U8 const* readableAt( U64 offset, U32 length ) const {
      if ( offset + length > mapping_.size() ) [[unlikely]] {
         refuseOutside( "read", offset, length );
      }
      return mapping_.base() + offset;
   }

   /// The first stretch at or after `offset` whose pages the system has; empty when there is none.
   /// Every byte between stretches is zero, and looking there would make the system supply pages. Where
   /// the system does not tell, all is one stretch.
   Stretch suppliedFrom( U64 offset ) const;

   U32 size() const { return mapping_.size(); }
   /// The name with its slash; empty for memory private to the process.
   Corvo::String const& name() const { return name_; }
   Access access() const { return access_; }

   Weft::TypeData typeData() const override;
   static Weft::AllocTrackTypeInfo memAllocationTracker_;

   /// For inProcess, create and open, which alone can make a Mapping worth holding.
   VellumChunk( Mapping mapping, Corvo::String name, Access access );

 private:
   [[noreturn]] void refuseWrite( U64 offset, U32 length ) const;
   [[noreturn]] void refuseOutside( char const* what, U64 offset, U32 length ) const;

   Mapping mapping_;
   Corvo::String name_;
   Access access_;
   U64 writesEndBefore_; ///< size() + 1, or 0 on a read-only chunk: one test answers both questions
};

} // namespace Vellum
