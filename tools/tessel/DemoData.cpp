// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/DemoData.h"

#include "tools/tessel/Failure.h"
#include "tools/tessel/HexText.h"
#include "tools/tessel/Text.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <span>
#include <unordered_map>

namespace TesselTool {

namespace {

/// The records of a CSV text; fields in quotes may hold commas, line ends, and quotes written twice.
class Records {
 public:
   explicit Records( std::string_view text ) : text_( text ) {}

   bool next( std::vector<std::string>& fields ) {
      fields.assign( 1, {} );
      if ( text_.empty() ) {
         return false;
      }
      bool quotesOpen = false;
      while ( !text_.empty() ) {
         char const c = text_.front();
         text_.remove_prefix( 1 );
         if ( c == '"' ) {
            takeQuote( quotesOpen, fields.back() );
         } else if ( c == ',' && !quotesOpen ) {
            fields.emplace_back();
         } else if ( c == '\n' && !quotesOpen ) {
            break;
         } else if ( c != '\r' ) {
            fields.back() += c;
         }
      }
      return true;
   }

 private:
   void takeQuote( bool& quotesOpen, std::string& field ) {
      if ( quotesOpen && text_.starts_with( '"' ) ) {
         text_.remove_prefix( 1 );
         field += '"';
      } else {
         quotesOpen = !quotesOpen;
      }
   }

   std::string_view text_;
};

std::optional<MacBlock> blockOf( std::string digits ) {
   if ( digits.size() != 6 && digits.size() != 7 && digits.size() != 9 ) {
      return std::nullopt;
   }
   MacBlock block{ .bits = static_cast<U8>( digits.size() * 4 ) };
   digits.append( 2 * block.prefix.size() - digits.size(), '0' );
   std::span const bytes( reinterpret_cast<char*>( block.prefix.data() ), block.prefix.size() );
   return parseHex( digits, bytes ).empty() ? std::optional( block ) : std::nullopt;
}

/// Adds blocks to a registry, each once, and numbers organisations in the order of their first.
class RegistryBuilder {
 public:
   explicit RegistryBuilder( MacRegistry& registry ) : registry_( registry ) {
      for ( MacBlock const& block : registry.blocks ) {
         known_.insert( nameOf( block ) );
      }
      for ( std::string const& organisation : registry.organisations ) {
         numbers_.emplace( organisation, static_cast<U32>( numbers_.size() ) );
      }
   }

   void add( std::vector<std::string> const& record ) {
      auto block = record.size() >= 3 ? blockOf( record[ 1 ] ) : std::nullopt;
      if ( !block || !known_.insert( nameOf( *block ) ).second ) {
         ++registry_.skipped;
         return;
      }
      block->organisation = numberOf( record[ 2 ] );
      registry_.blocks.push_back( *block );
   }

 private:
   using Name = std::pair<U8, std::array<U8, 6>>;

   static Name nameOf( MacBlock const& block ) { return { block.bits, block.prefix }; }

   U32 numberOf( std::string const& organisation ) {
      auto const [ known, isNew ] =
         numbers_.emplace( organisation, static_cast<U32>( numbers_.size() ) );
      if ( isNew ) {
         registry_.organisations.push_back( organisation );
      }
      return known->second;
   }

   MacRegistry& registry_;
   std::set<Name> known_;
   std::unordered_map<std::string, U32> numbers_;
};

std::string contentsOf( std::string const& file ) {
   std::ifstream stream( file, std::ios::binary );
   std::string text( std::istreambuf_iterator<char>( stream ), {} );
   if ( !stream.is_open() || stream.bad() || text.empty() ) {
      throw Failure( joined( file, ": cannot be read, or is empty" ) );
   }
   return text;
}

} // namespace

std::vector<std::string> installedRegistryFiles() {
   std::vector<std::string> files;
   for ( std::string_view const name : { "oui.csv", "mam.csv", "oui36.csv", "iab.csv" } ) {
      std::string file = joined( "/usr/share/ieee-data/", name );
      std::error_code none;
      if ( std::filesystem::exists( file, none ) ) {
         files.push_back( std::move( file ) );
      }
   }
   if ( files.empty() ) {
      throw Failure( "the registry of MAC address blocks is not installed: apt-get install "
                     "ieee-data, or name its CSV files with --data" );
   }
   return files;
}

void addMacBlocks( MacRegistry& registry, std::string_view csv ) {
   RegistryBuilder builder( registry );
   Records records( csv );
   std::vector<std::string> record;
   records.next( record ); // the heading
   while ( records.next( record ) ) {
      builder.add( record );
   }
}

MacRegistry readMacRegistry( std::vector<std::string> const& files ) {
   MacRegistry registry;
   for ( std::string const& file : files ) {
      std::size_t const before = registry.blocks.size();
      addMacBlocks( registry, contentsOf( file ) );
      if ( registry.blocks.size() == before ) {
         throw Failure(
            joined( file, ": holds no new MAC address block: is it the registry's CSV?" ) );
      }
   }
   return registry;
}

} // namespace TesselTool
