// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Rows of text in columns of equal width.
///
/// Threads: plain values.

#include <iosfwd>
#include <string>
#include <vector>

namespace TesselTool {

class Columns {
 public:
   enum class Align { left, right };
   struct Heading {
      std::string text;
      Align align = Align::left;
   };

   explicit Columns( std::vector<Heading> headings );

   /// One text for each heading.
   void rowIs( std::vector<std::string> row );
   void print( std::ostream& out ) const;

 private:
   std::vector<Align> aligns_;
   std::vector<std::vector<std::string>> rows_; ///< the headings first
};

} // namespace TesselTool
